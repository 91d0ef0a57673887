#include "record_fields.h"

#include <arpa/inet.h>
#include <modulemsg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>

namespace Quorvel {
namespace {

using Json = nlohmann::ordered_json;

const uint8_t kModuleLogType = 127;
const uint8_t kTextCommand = 3;

std::string dottedQuad(uint32_t address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof(text));
}

Json moduleFields(const std::string& body) {
    ModuleInvokeMsg invoke;
    ReservedData reserved;
    memcpy(&invoke, body.data(), sizeof(invoke));
    memcpy(&reserved, body.data() + sizeof(invoke), sizeof(reserved));
    return {{"uiTime", uint32_t{invoke.uiTime}},
            {"uiVer", uint32_t{invoke.uiVer}},
            {"iMid", int32_t{invoke.iMid}},
            {"iSid", int32_t{invoke.iSid}},
            {"iInterfaceid", int32_t{invoke.iInterfaceid}},
            {"uiMip", dottedQuad(invoke.uiMip)},
            {"uiSip", dottedQuad(invoke.uiSip)},
            {"iRetVal", int32_t{invoke.iRetVal}},
            {"iResult", int32_t{invoke.iResult}},
            {"iDelay", int32_t{invoke.iDelay}},
            {"iMaxDelay", int32_t{invoke.iMaxDelay}},
            {"iMinDelay", int32_t{invoke.iMinDelay}},
            {"fAvgDelay", float{invoke.fAvgDelay}},
            {"ullCnt", uint64_t{invoke.ullCnt}},
            {"ullTotalDelay", uint64_t{invoke.ullTotalDelay}},
            {"uiFip", dottedQuad(invoke.uiFip)},
            {"iReserved1", int32_t{invoke.iReserved1}},
            {"ullTotalReqPacketSize", uint64_t{reserved.ullTotalReqPacketSize}},
            {"ullTotalRspPacketSize", uint64_t{reserved.ullTotalRspPacketSize}}};
}

// Undoes exactly the escapes that CLogger::encode() makes.
std::string unescape(const std::string& text) {
    const std::string escaped("\0\t\n\r%&=", 7);
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned int byte = 0;
        if (text[i] == '%' && sscanf(text.c_str() + i, "%%%2X", &byte) == 1 &&
            escaped.find(static_cast<char>(byte)) != std::string::npos) {
            plain += static_cast<char>(byte);
            i += 2;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

Json pairs(const std::string& body) {
    Json fields;
    bool hasPair = false;
    for (size_t start = 0; start <= body.size();) {
        const size_t end = std::min(body.find('&', start), body.size());
        const std::string part = body.substr(start, end - start);
        const size_t equals = part.find('=');
        const bool isPair = equals != std::string::npos;
        const std::string key = isPair ? unescape(part.substr(0, equals)) : "data";
        if ((!isPair && start > 0) || fields.contains(key)) {
            return Json();
        }
        fields[key] = unescape(isPair ? part.substr(equals + 1) : part);
        hasPair = hasPair || isPair;
        start = end + 1;
    }
    return hasPair ? fields : Json();
}

}  // namespace

Json recordFields(const Request& request) {
    if (request.logType == kModuleLogType && request.command != kTextCommand &&
        request.body.size() == sizeof(ModuleInvokeMsg) + sizeof(ReservedData)) {
        return moduleFields(request.body);
    }
    if (request.command != kTextCommand) {
        return Json();
    }
    try {
        Json fields = pairs(request.body);
        fields.dump();
        return fields;
    } catch (const Json::type_error&) {
        return Json();
    }
}

}  // namespace Quorvel
