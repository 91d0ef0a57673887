#include "rates_view.h"

#include "json_writer.h"
#include "log_types.h"
#include "sampling_table.h"
#include "text_safety.h"

namespace Quorvel {
namespace {

std::string effect(uint8_t rate) {
    if (rate <= 1) {
        return "every record is kept";
    }
    return rate == 255 ? "every record is dropped"
                       : "one record in " + std::to_string(rate) + " is kept";
}

template <class Encoding>
void printJson(const AppItem& slot, bool all, Output& output) {
    const std::string name = slotName(slot);
    JsonWriter<Encoding> writer;
    for (int type = 0; type <= kMaxLogType; ++type) {
        const uint8_t rate = slot.logTypeItems[type].sampling;
        if (rate > 1 || all) {
            JsonStream stream(output);
            writer.Reset(stream);
            writer.StartObject();
            writer.bytes("application", "applicationEncoding", name);
            writer.number("logType", static_cast<uint64_t>(type));
            writer.number("rate", rate);
            writer.EndObject();
            output.put('\n');
        }
    }
}

}  // namespace

void printReadableRates(const AppItem& slot, Output& output) {
    const std::string name = escapeForTerminal(slotName(slot));
    for (int first = 0, end = 0; first <= kMaxLogType; first = end) {
        const uint8_t rate = slot.logTypeItems[first].sampling;
        while (end <= kMaxLogType && slot.logTypeItems[end].sampling == rate) {
            ++end;
        }
        output.append(name + (end - first == 1 ? " type " : " types ") + std::to_string(first));
        output.append(end - first == 1 ? "" : "-" + std::to_string(end - 1));
        output.append(": rate " + std::to_string(rate) + ", " + effect(rate) + '\n');
    }
}

void printJsonRates(const AppItem& slot, bool all, bool onlyAscii, Output& output) {
    if (onlyAscii) {
        printJson<rapidjson::ASCII<>>(slot, all, output);
    } else {
        printJson<rapidjson::UTF8<>>(slot, all, output);
    }
}

}  // namespace Quorvel
