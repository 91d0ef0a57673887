// Every record prints as one line that a terminal shows harmlessly, or as one JSON object that
// holds it whole: the input's first byte chooses between a text and a module record, the rest is
// the body.
#include <nlohmann/json.hpp>

#include "fuzzing.h"
#include "record_printer.h"

namespace Quorvel {
namespace {

std::string line(const RequestView& request, RecordStyle style) {
    return printed(
        [&](Output& output) { makeRecordPrinter(style)->print(request, std::nullopt, output); });
}

void requireJson(const RequestView& request, const std::string& text) {
    const nlohmann::json object = nlohmann::json::parse(text, nullptr, false);
    require(object.is_object() && object["timestamp"] == request.timestamp);
    require(object.contains("bodyEncoding") || object["body"] == request.body);
}

}  // namespace
}  // namespace Quorvel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Quorvel;
    if (size == 0) {
        return 0;
    }
    const std::string_view body(reinterpret_cast<const char*>(data) + 1, size - 1);
    const bool isText = data[0] % 2 == 0;
    const RequestView request = {isText ? kTextCommand : kBinaryCommand,
                                 static_cast<uint8_t>(isText ? 5 : 127),
                                 1400000000,
                                 body,
                                 body,
                                 ""};
    const std::string readable = line(request, RecordStyle::kReadable);
    require(isHarmless(readable) && readable.find('\n') == readable.size() - 1);
    requireJson(request, line(request, RecordStyle::kJson));
    const std::string ascii = line(request, RecordStyle::kAsciiJson);
    require(std::all_of(ascii.begin(), ascii.end(), [](char c) { return c > 0; }));
    requireJson(request, ascii);
    return 0;
}
