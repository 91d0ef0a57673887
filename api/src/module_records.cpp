#include <time.h>

#include <algorithm>

#include "fork_safety.h"
#include "ipv4_address.h"
#include "logger_state.h"
#include "module_text.h"
#include "modulemsg.h"
#include "qvapi_sampling.h"

namespace Quorvel {
namespace {

const uint32_t kModuleVersion = 2;
const int g_iTypeid = 1000238;
const size_t kMaxAddressLength = 32;
const int kDropped = -1;

// A record of n calls stands for n times one call's value, modulo 2^32.
int times(int rate, int value) {
    return static_cast<int>(static_cast<uint32_t>(rate) * static_cast<uint32_t>(value));
}

uint64_t total(int rate, int value) { return static_cast<uint64_t>(int64_t{times(rate, value)}); }

}  // namespace

/// The arguments of a worker.
struct ModuleCall {
    int mid;
    int sid;
    int ifid;
    const std::string& mip;
    const std::string& sip;
    int retval;
    int result;
    int delay;
    int reservedInt0;  ///< fip as inet_addr(3) returns it
    int reservedInt1;
    int reqLen;
    int rspLen;
};

namespace {

void fill(ModuleInvokeMsg& invoke, const ModuleCall& call, int rate) {
    invoke.uiTime = static_cast<uint32_t>(time(nullptr));
    invoke.uiVer = kModuleVersion;
    invoke.iMid = call.mid;
    invoke.iSid = call.sid;
    invoke.iInterfaceid = call.ifid;
    invoke.uiMip = parseAddress(call.mip);
    invoke.uiSip = parseAddress(call.sip);
    invoke.iRetVal = call.retval;
    invoke.iResult = call.result;
    invoke.iDelay = times(rate, call.delay);
    invoke.iMaxDelay = call.delay;
    invoke.iMinDelay = call.delay;
    invoke.fAvgDelay = static_cast<float>(call.delay);
    invoke.ullCnt = static_cast<uint64_t>(rate);
    invoke.ullTotalDelay = total(rate, call.delay);
    invoke.uiFip = static_cast<in_addr_t>(call.reservedInt0);
    invoke.iReserved1 = call.reservedInt1;
}

ModuleText textOf(const ModuleCall& call, int count) {
    ModuleText text;
    text.typeId = g_iTypeid;
    text.time = static_cast<int>(time(nullptr));
    text.mid = call.mid;
    text.sid = call.sid;
    text.ifid = call.ifid;
    text.fip = static_cast<in_addr_t>(call.reservedInt0);
    text.mip = parseAddress(call.mip);
    text.sip = parseAddress(call.sip);
    text.result = call.result;
    text.retval = call.retval;
    text.count = count;
    text.totalDelay = times(count, call.delay);
    text.delay = call.delay;
    text.totalReqLen = times(count, call.reqLen);
    text.totalRspLen = times(count, call.rspLen);
    return text;
}

}  // namespace

int CLogger::write_modulelog(int sid, int ifid, std::string& mip, std::string& sip, int retval,
                             int result, int delay) {
    return write_modulelog(m_iMid, sid, ifid, mip, sip, retval, result, delay, 0, 0, 0, 0);
}

int CLogger::write_modulelog(int sid, int ifid, std::string& fip, std::string& mip,
                             std::string& sip, int retval, int result, int delay, int reqLen,
                             int rspLen) {
    return write_modulelog(m_iMid, sid, ifid, fip, mip, sip, retval, result, delay, reqLen, rspLen);
}

int CLogger::write_modulelog(int mid, int sid, int ifid, std::string& fip, std::string& mip,
                             std::string& sip, int retval, int result, int delay, int reqLen,
                             int rspLen) {
    if (!fip_fits(fip)) {
        return failed(QV_ERR_ADDRESS_LENGTH, kModuleLogType, 0);
    }
    return write_modulelog(mid, sid, ifid, mip, sip, retval, result, delay,
                           static_cast<int>(parseAddress(fip)), 0, reqLen, rspLen);
}

[[gnu::flatten]] int CLogger::write_modulelog(int mid, int sid, int ifid, std::string& mip,
                                              std::string& sip, int retval, int result, int delay,
                                              int reservedInt0, int reservedInt1, int reqLen,
                                              int rspLen) {
    const ModuleCall call = {mid,    sid,   ifid,         mip,          sip,    retval,
                             result, delay, reservedInt0, reservedInt1, reqLen, rspLen};
    int rate = 0;
    const int res = check_module(call, kModuleLogType, rate);
    if (res != QV_ERR_OK || rate == kDropped) {
        return res;
    }
    const CallScope scope;
    struct {
        ModuleInvokeMsg invoke;
        ReservedData reserved;
    } body = {};
    fill(body.invoke, call, rate);
    body.reserved.ullTotalReqPacketSize = total(rate, reqLen);
    body.reserved.ullTotalRspPacketSize = total(rate, rspLen);
    static_assert(sizeof(body) == 172, "the agent reads these bytes");
    return comm_write(reinterpret_cast<const char*>(&body), sizeof(body), kModuleLogType, 1,
                      static_cast<unsigned int>(time(nullptr)));
}

int CLogger::write_modulelog_forIM(int sid, int ifid, std::string& mip, std::string& sip,
                                   int retval, int result, int delay) {
    return write_modulelog_forIM(m_iMid, sid, ifid, mip, sip, retval, result, delay, 0, 0, 0, 0);
}

int CLogger::write_modulelog_forIM(int sid, int ifid, std::string& fip, std::string& mip,
                                   std::string& sip, int retval, int result, int delay, int reqLen,
                                   int rspLen) {
    return write_modulelog_forIM(m_iMid, sid, ifid, fip, mip, sip, retval, result, delay, reqLen,
                                 rspLen);
}

int CLogger::write_modulelog_forIM(int mid, int sid, int ifid, std::string& fip, std::string& mip,
                                   std::string& sip, int retval, int result, int delay, int reqLen,
                                   int rspLen) {
    if (!fip_fits(fip)) {
        return failed(QV_ERR_ADDRESS_LENGTH, LT_NORMAL, 0);
    }
    return write_modulelog_forIM(mid, sid, ifid, mip, sip, retval, result, delay,
                                 static_cast<int>(parseAddress(fip)), 0, reqLen, rspLen);
}

// The text has no key for reservedInt1.
[[gnu::flatten]] int CLogger::write_modulelog_forIM(int mid, int sid, int ifid, std::string& mip,
                                                    std::string& sip, int retval, int result,
                                                    int delay, int reservedInt0, int reservedInt1,
                                                    int reqLen, int rspLen) {
    const ModuleCall call = {mid,    sid,   ifid,         mip,          sip,    retval,
                             result, delay, reservedInt0, reservedInt1, reqLen, rspLen};
    int rate = 0;
    const int res = check_module(call, LT_NORMAL, rate);
    if (res != QV_ERR_OK || rate == kDropped) {
        return res;
    }
    const CallScope scope;
    char text[kModuleTextSize];
    const size_t length = formatModuleText(textOf(call, std::max(rate, 1)), text);
    return comm_write(text, static_cast<unsigned int>(length), LT_NORMAL, 0,
                      static_cast<unsigned int>(time(nullptr)));
}

bool CLogger::fip_fits(const std::string& fip) {
    if (fip.size() > kMaxAddressLength) {
        update_errmsg("write_modulelog: fip addr length invalid");
        return false;
    }
    return true;
}

// Leaves in `rate` how many calls the record stands for, or kDropped.
int CLogger::check_module(const ModuleCall& call, int8_t logType, int& rate) {
    if (!m_isInit) {
        update_errmsg("writemodulelog: is not init");
        return failed(QV_ERR_INIT, logType, 0);
    }
    if (m_iMid == -1) {
        update_errmsg("write_modulelog: init error");
        return failed(QV_ERR_INIT, logType, 0);
    }
    if (call.delay < 0 || call.sid <= 0 || call.ifid <= 0 || call.mid <= 0) {
        update_errmsg("write_modulelog: delay[%d] mid[%d] sid[%d] ifid[%d] error", call.delay,
                      call.mid, call.sid, call.ifid);
        return failed(QV_ERR_ARGUMENT, logType, 0);
    }
    if (call.reqLen < 0 || call.rspLen < 0) {
        update_errmsg("write_modulelog: reqLen[%d] rspLen[%d] error", call.reqLen, call.rspLen);
        return failed(QV_ERR_ARGUMENT, logType, 0);
    }
    rate = 1;
    if (need_sample(call.result) != 0) {
        if (m_pSampling->needFilter(logType)) {
            rate = kDropped;
            return QV_ERR_OK;
        }
        rate = m_pSampling->fetchSampling(logType);
    }
    if (call.mip.size() > kMaxAddressLength || call.sip.size() > kMaxAddressLength) {
        update_errmsg("write_modulelog: ip addr length invalid");
        return failed(QV_ERR_ADDRESS_LENGTH, logType, 0);
    }
    return QV_ERR_OK;
}

}  // namespace Quorvel
