#ifndef QVAPI_MODULE_TEXT_H
#define QVAPI_MODULE_TEXT_H

#include <netinet/in.h>
#include <stddef.h>

namespace Quorvel {

/// The values of a text module record.
struct ModuleText {
    int typeId;
    int time;
    int mid;
    int sid;
    int ifid;
    in_addr_t fip;
    in_addr_t mip;
    in_addr_t sip;
    int result;
    int retval;
    int count;
    int totalDelay;
    int delay;
    int totalReqLen;
    int totalRspLen;
};

/// Room for the longest text module record.
const size_t kModuleTextSize = 512;

/// Writes the pairs of keys and values. @return their length; no NUL follows.
size_t formatModuleText(const ModuleText& values, char (&text)[kModuleTextSize]);

}  // namespace Quorvel

#endif  // QVAPI_MODULE_TEXT_H
