#include "record_printer.h"

#include <arpa/inet.h>
#include <modulemsg.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <cmath>

#include "json_writer.h"
#include "local_time.h"
#include "record_fields.h"
#include "text_safety.h"

namespace Quorvel {
namespace {

const uint8_t kModuleLogType = 127;

std::string dottedQuad(uint32_t address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof(text));
}

bool isModuleRecord(const RequestView& request) {
    return request.logType == kModuleLogType && request.command != kTextCommand &&
           request.body.size() == sizeof(ModuleInvokeMsg) + sizeof(ReservedData);
}

template <class Writer>
void writeModuleFields(std::string_view body, Writer& writer) {
    ModuleInvokeMsg invoke;
    ReservedData reserved;
    memcpy(&invoke, body.data(), sizeof(invoke));
    memcpy(&reserved, body.data() + sizeof(invoke), sizeof(reserved));
    const auto addUint = [&](const char* key, uint64_t value) {
        writer.raw(key);
        writer.Uint64(value);
    };
    const auto addInt = [&](const char* key, int32_t value) {
        writer.raw(key);
        writer.Int(value);
    };
    const auto addAddress = [&](const char* key, uint32_t value) {
        writer.raw(key);
        writer.raw(dottedQuad(value));
    };
    writer.StartObject();
    addUint("uiTime", invoke.uiTime);
    addUint("uiVer", invoke.uiVer);
    addInt("iMid", invoke.iMid);
    addInt("iSid", invoke.iSid);
    addInt("iInterfaceid", invoke.iInterfaceid);
    addAddress("uiMip", invoke.uiMip);
    addAddress("uiSip", invoke.uiSip);
    addInt("iRetVal", invoke.iRetVal);
    addInt("iResult", invoke.iResult);
    addInt("iDelay", invoke.iDelay);
    addInt("iMaxDelay", invoke.iMaxDelay);
    addInt("iMinDelay", invoke.iMinDelay);
    writer.raw("fAvgDelay");
    std::isfinite(invoke.fAvgDelay) ? writer.Double(double{invoke.fAvgDelay}) : writer.Null();
    addUint("ullCnt", invoke.ullCnt);
    addUint("ullTotalDelay", invoke.ullTotalDelay);
    addAddress("uiFip", invoke.uiFip);
    addInt("iReserved1", invoke.iReserved1);
    addUint("ullTotalReqPacketSize", reserved.ullTotalReqPacketSize);
    addUint("ullTotalRspPacketSize", reserved.ullTotalRspPacketSize);
    writer.EndObject();
}

template <class Encoding>
class JsonPrinter final : public RecordPrinter {
 public:
    void print(const RequestView& request, std::optional<Transport> transport,
               Output& output) override {
        JsonStream stream(output);
        m_writer.Reset(stream);
        m_writer.StartObject();
        if (transport) {
            m_writer.raw("transport");
            m_writer.raw(transportName(*transport));
        }
        m_writer.bytes("application", "applicationEncoding", request.application);
        m_writer.number("command", request.command);
        m_writer.number("logType", request.logType);
        m_writer.number("timestamp", request.timestamp);
        const bool bodyIsText = m_writer.bytes("body", "bodyEncoding", request.body);
        if (isModuleRecord(request)) {
            m_writer.raw("fields");
            writeModuleFields(request.body, m_writer);
        } else if (bodyIsText && request.command == kTextCommand && m_fields.split(request.body)) {
            m_writer.raw("fields");
            writeTextFields();
        }
        m_writer.EndObject();
        output.put('\n');
    }

 private:
    void writeTextFields() {
        m_writer.StartObject();
        for (const auto& [key, value] : m_fields.get()) {
            m_writer.text(key);
            m_writer.text(value);
        }
        m_writer.EndObject();
    }

    JsonWriter<Encoding> m_writer;
    RecordFields m_fields;
};

class ReadablePrinter final : public RecordPrinter {
 public:
    explicit ReadablePrinter(bool coloured)
        : m_dim(coloured ? "\x1B[2m" : ""),
          m_bold(coloured ? "\x1B[1;36m" : ""),
          m_plain(coloured ? "\x1B[0m" : "") {}

    void print(const RequestView& request, std::optional<Transport> transport,
               Output& output) override {
        const bool isBinary = request.command == kBinaryCommand;
        output.append(m_dim);
        output.append(localTime(request.timestamp));
        output.put(' ');
        if (transport) {
            output.append(transportName(*transport));
            output.put(' ');
        }
        output.append(m_plain);
        output.append(m_bold);
        appendForTerminal(output, request.application);
        output.append(m_plain);
        output.append(" type " + std::to_string(request.logType) +
                      (isBinary ? " binary: " : " text: "));
        if (isModuleRecord(request)) {
            JsonStream stream(output);
            m_writer.Reset(stream);
            writeModuleFields(request.body, m_writer);
        } else {
            appendForTerminal(output, request.body);
        }
        output.put('\n');
    }

 private:
    const char* const m_dim;
    const char* const m_bold;
    const char* const m_plain;
    JsonWriter<rapidjson::UTF8<>> m_writer;
};

}  // namespace

RecordStyle recordStyle(bool json) {
    if (isatty(STDOUT_FILENO) == 0) {
        return RecordStyle::kJson;
    }
    if (json) {
        return RecordStyle::kAsciiJson;
    }
    const char* const noColour = getenv("NO_COLOR");
    return noColour != nullptr && *noColour != '\0' ? RecordStyle::kReadable
                                                    : RecordStyle::kColoured;
}

std::unique_ptr<RecordPrinter> makeRecordPrinter(RecordStyle style) {
    switch (style) {
        case RecordStyle::kJson:
            return std::make_unique<JsonPrinter<rapidjson::UTF8<>>>();
        case RecordStyle::kAsciiJson:
            return std::make_unique<JsonPrinter<rapidjson::ASCII<>>>();
        default:
            return std::make_unique<ReadablePrinter>(style == RecordStyle::kColoured);
    }
}

}  // namespace Quorvel
