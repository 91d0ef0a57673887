// A table of any bytes shows harmlessly and takes changes. The input is the table's beginning.
#include <string.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "fuzzing.h"
#include "rates_view.h"
#include "sampling_table.h"

namespace Quorvel {
namespace {

void requireHarmlessViews(const AppItem& slot) {
    require(isHarmless(printed([&](Output& output) { printReadableRates(slot, output); })));
    std::istringstream lines(
        printed([&](Output& output) { printJsonRates(slot, true, false, output); }));
    int type = 0;
    for (std::string line; std::getline(lines, line); ++type) {
        const nlohmann::json object = nlohmann::json::parse(line, nullptr, false);
        require(object.is_object() && object["logType"] == type);
        require(object["rate"] == slot.logTypeItems[type].sampling);
    }
    require(type == 128);
}

}  // namespace
}  // namespace Quorvel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Quorvel;
    std::vector<AppItem> table(kSamplingSlots);
    memcpy(table.data(), data, std::min(size, table.size() * sizeof(AppItem)));
    const std::vector<AppItem> before = usedSlots(table.data());
    for (const AppItem& slot : before) {
        requireHarmlessViews(slot);
    }
    if (before.size() < kSamplingSlots) {
        setRates(table.data(), "an application", {5, 6}, 7);
        require(usedSlots(table.data()).size() >= before.size());
        require(clearRates(table.data(), "an application").logTypeItems[5].sampling == 1);
    }
    return 0;
}
