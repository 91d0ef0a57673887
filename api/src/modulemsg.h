#ifndef QVAPI_MODULEMSG_H
#define QVAPI_MODULEMSG_H

#include <stddef.h>
#include <stdint.h>

namespace Quorvel {

/// First part of the body of a binary module-invocation record (log type 127). Packed; numbers are
/// in the host's byte order (little-endian), addresses in network order. "Rate" is the sampling
/// rate of the record: it stands for that many calls.
struct __attribute__((packed)) ModuleInvokeMsg {
    uint32_t uiTime;         ///< seconds since the epoch
    uint32_t uiVer;          ///< 2
    int32_t iMid;            ///< module id
    int32_t iSid;            ///< id of the other party
    int32_t iInterfaceid;    ///< interface id
    uint32_t uiMip;          ///< address that goes with iMid
    uint32_t uiSip;          ///< address that goes with iSid
    int32_t iRetVal;         ///< the call's return value
    int32_t iResult;         ///< the call's result code
    int32_t iDelay;          ///< rate x delay, modulo 2^32
    int32_t iMaxDelay;       ///< delay
    int32_t iMinDelay;       ///< delay
    float fAvgDelay;         ///< delay
    uint64_t ullCnt;         ///< rate; 1 when exempt from sampling
    uint64_t ullTotalDelay;  ///< iDelay, widened with its sign
    uint32_t uiFip;          ///< fip, or 0
    int32_t iReserved1;      ///< 0
};

/// Second part of the body, right behind the first.
struct __attribute__((packed)) ReservedData {
    uint64_t ullTotalReqPacketSize;  ///< rate x request size, modulo 2^32, widened with its sign
    uint64_t ullTotalRspPacketSize;  ///< rate x response size, likewise
    uint64_t ullReserved2;           ///< this and all that follow: 0
    int32_t iReserved3;
    int32_t iReserved4;
    uint64_t ullReserved5;
    int32_t iReserved6;
    int32_t iReserved7;
    uint64_t ullReserved8;
    int32_t iReserved9;
    int32_t iReserved10;
    uint64_t ullReserved11;
    int32_t iReserved12;
    int32_t iReserved13;
    uint64_t ullReserved14;
    int32_t iReserved15;
    int32_t iReserved16;
};

static_assert(sizeof(ModuleInvokeMsg) == 76 && offsetof(ModuleInvokeMsg, iDelay) == 36 &&
                  offsetof(ModuleInvokeMsg, ullCnt) == 52 && offsetof(ModuleInvokeMsg, uiFip) == 68,
              "the agent reads these bytes");
static_assert(sizeof(ReservedData) == 96 && offsetof(ReservedData, ullReserved2) == 16 &&
                  offsetof(ReservedData, ullReserved5) == 32 &&
                  offsetof(ReservedData, ullReserved8) == 48 &&
                  offsetof(ReservedData, ullReserved11) == 64 &&
                  offsetof(ReservedData, ullReserved14) == 80,
              "the agent reads these bytes");

}  // namespace Quorvel

#endif  // QVAPI_MODULEMSG_H
