#include "qvapi_cpp.h"

#include <arpa/inet.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "error_text.h"
#include "fallback_file.h"
#include "fork_safety.h"
#include "locks.h"
#include "modulemsg.h"
#include "qvapi_sampling.h"
#include "qvapimsg.h"
#include "record_text.h"
#include "socket_client.h"
#include "stat_threads.h"

namespace Quorvel {
namespace {

const int kSamplingKey = 9777;
const int kSamplingSize = 102800;
const int8_t kUdp = 2;
const int kMaxNameLength = 65533;

const uint16_t kProtocolVersion = 2;
const uint8_t kTextCommand = 3;
const uint8_t kBinaryCommand = 6;
const uint16_t kShortForm = 1;
const uint16_t kLongForm = 9;
const unsigned int kMaxShortBody = 30720;
const unsigned int kMaxPackedRecord = 30720;

const uint8_t kMaxBaseLogType = 110;
const int8_t kModuleLogType = 127;

const size_t kTextSize = 30720;

const int kTypeId = 1000238;
const uint32_t kModuleVersion = 2;
const size_t kMaxAddressLength = 32;
const int kDropped = -1;

const size_t kMaxStatText = 1023;
const std::chrono::seconds kStatPause(1);

using StatMap = std::map<std::string, int>;
using StatBatch = std::map<std::string, StatMap>;

// A record of n calls stands for n times one call's value, modulo 2^32.
int times(int rate, int value) {
    return static_cast<int>(static_cast<uint32_t>(rate) * static_cast<uint32_t>(value));
}

int combine(int stored, int value, int kind) {
    switch (kind) {
        case QV_STAT_TYPE_MIN:
            return std::min(stored, value);
        case QV_STAT_TYPE_MAX:
            return std::max(stored, value);
        default:
            return static_cast<int>(static_cast<uint32_t>(stored) + static_cast<uint32_t>(value));
    }
}

void merge(StatMap& stored, const StatMap& values, int kind) {
    if (kind < QV_STAT_TYPE_COUNT || kind > QV_STAT_TYPE_MAX) {
        return;
    }
    // Both maps are in the order of the names, so the next one usually follows the last.
    auto entry = stored.begin();
    for (const auto& [name, value] : values) {
        if (entry == stored.end() || entry->first != name) {
            entry = stored.lower_bound(name);
        }
        if (entry == stored.end() || entry->first != name) {
            entry = stored.emplace_hint(entry, name, value);
        } else {
            entry->second = combine(entry->second, value, kind);
        }
        ++entry;
    }
}

void appendStatText(std::string& record, const char* text) {
    record.append(text, strnlen(text, kMaxStatText - record.size()));
}

}  // namespace

struct CLogger::State final : ForkMember {
    explicit State(CLogger& owner) : logger(owner) { enrol(*this, &owner); }
    ~State() { withdraw(*this); }

    void lockForFork() override;
    void unlockAfterFork() override;
    void renewInChild() override;

    CLogger& logger;
    /// Guards the open batch and the settings of statistics.
    std::mutex statLock;
    std::atomic<bool> queueLockExists{false};
    /// Whether a fork took the queue's lock, which another thread may make meanwhile.
    bool queueLockedForFork = false;
    /// Guards the change of `stopping`, for which idle statistics threads wait.
    std::mutex stopLock;
    std::condition_variable stop;
    std::atomic<bool> stopping{false};
};

void CLogger::State::lockForFork() {
    if (logger.m_needLock) {
        statLock.lock();
    }
    queueLockedForFork = queueLockExists;
    if (queueLockedForFork) {
        pthread_rwlock_wrlock(&logger.m_queue_lock);
    }
    if (logger.m_needLock) {
        pthread_rwlock_wrlock(&logger.m_errMsgrwlock);
    }
}

void CLogger::State::unlockAfterFork() {
    if (logger.m_needLock) {
        pthread_rwlock_unlock(&logger.m_errMsgrwlock);
    }
    if (queueLockedForFork) {
        pthread_rwlock_unlock(&logger.m_queue_lock);
    }
    if (logger.m_needLock) {
        statLock.unlock();
    }
}

void CLogger::State::renewInChild() {
    new (&statLock) std::mutex;
    new (&stopLock) std::mutex;
    new (&stop) std::condition_variable;
    if (queueLockExists) {
        pthread_rwlock_init(&logger.m_queue_lock, nullptr);
    }
    if (logger.m_needLock) {
        initWritersFirst(logger.m_errMsgrwlock);
    }
}

CLogger::CLogger(int8_t tmpSocketType, bool isLock) : CLogger(tmpSocketType, isLock, CallScope()) {}

// The scope is open while the members are made: the queue allocates.
CLogger::CLogger(int8_t tmpSocketType, bool isLock, const CallScope& /*scope*/)
    : m_queue_lock(),
      m_pSocketClient(nullptr),
      m_pSampling(nullptr),
      m_errMsgrwlock(),
      m_rspMsgLen(sizeof(ApiReqMsgHeader)),
      m_reqMsgHdrLen(sizeof(ApiReqMsgHeader)),
      m_addrLen(0),
      m_needRsp(false),
      m_socketType(tmpSocketType),
      m_iMid(-1),
      m_isInit(false),
      m_appnameLen(0),
      m_appnamePartLen(0),
      m_not_sample_flag(0),
      m_needLock(isLock),
      m_isStat(false),
      m_type(0),
      m_stat_last_time(0),
      m_stat_interval(0),
      m_stat_count(0),
      m_pState(nullptr) {
    m_stat_last_time = static_cast<uint32_t>(time(nullptr));
    m_errmsg.reserve(kErrorTextSize);
    if (m_needLock) {
        initWritersFirst(m_errMsgrwlock);
    }
    m_pState = new State(*this);
}

CLogger::~CLogger() {
    const CallScope scope;
    end_stat_threads();
    delete m_pSocketClient;
    delete m_pSampling;
    const bool queueLockExists = m_pState->queueLockExists;
    delete m_pState;
    if (queueLockExists) {
        pthread_rwlock_destroy(&m_queue_lock);
    }
    if (m_needLock) {
        pthread_rwlock_destroy(&m_errMsgrwlock);
    }
}

int CLogger::init(std::string logName) { return init(std::move(logName), false); }

int CLogger::init(int mid) {
    char text[16] = {};
    snprintf(text, sizeof(text), "%d", mid);
    return init(std::string(text), true);
}

int CLogger::init(std::string logName, bool isModule) {
    const CallScope scope;
    m_isStat = false;
    if (m_isInit) {
        update_errmsg("init: already init with appname:%s", m_appname.c_str());
        return QV_ERR_INIT;
    }
    if (logName.empty()) {
        update_errmsg("init: length of logName is 0");
        return QV_ERR_INIT;
    }
    if (logName.size() > static_cast<size_t>(kMaxNameLength)) {
        update_errmsg("init: length of logName is %zu, more than %d", logName.size(),
                      kMaxNameLength);
        return QV_ERR_INIT;
    }
    int mid = -1;
    m_appname = isModule ? "mod" + logName : logName;
    if (isModule) {
        mid = static_cast<int>(strtol(logName.c_str(), nullptr, 10));
        if (mid < 1) {
            update_errmsg("init mod mid[%s] error", logName.c_str());
            return QV_ERR_INIT;
        }
    }
    auto client = std::make_unique<SocketClient>();
    auto sampling = std::make_unique<Sampling>();
    const bool stream = !isModule && (m_socketType == 0 || m_socketType == 1);
    client->init(stream ? m_socketType : kUdp, m_needLock);
    sampling->init(m_appname, kSamplingKey, kSamplingSize);
    m_iMid = mid;
    m_appnameLen = static_cast<uint16_t>(m_appname.size());
    m_appnamePartLen = static_cast<uint16_t>(m_appnameLen + sizeof(m_appnameLen));
    m_pSocketClient = client.release();
    m_pSampling = sampling.release();
    m_isInit = true;
    return QV_ERR_OK;
}

void CLogger::set_socktype(int8_t st) { m_socketType = st; }

void CLogger::set_no_sample(int result) {
    const int bit = result & 31;
    if (bit < 16) {
        m_not_sample_flag.fetch_or(static_cast<int16_t>(1U << bit));
    }
}

void CLogger::set_sample(int result) {
    const int bit = result & 31;
    if (bit < 16) {
        m_not_sample_flag.fetch_xor(static_cast<int16_t>(1U << bit));
    }
}

int CLogger::need_sample(int result) {
    const unsigned int exempt = static_cast<uint16_t>(m_not_sample_flag.load());
    return ((exempt >> (result & 31)) & 1U) == 0 ? 1 : 0;
}

int8_t CLogger::get_logtype() { return m_type; }

bool CLogger::get_lock() { return m_needLock; }

[[gnu::cold, gnu::noinline]] void CLogger::update_errmsg(const char* cErrmsg, ...) {
    const CallScope scope;
    va_list arguments;
    va_start(arguments, cErrmsg);
    formatErrorText(m_errmsg, m_errMsgrwlock, m_needLock, cErrmsg, arguments);
    va_end(arguments);
}

std::string CLogger::get_errmsg() {
    const CallScope scope;
    const ReadGuard guard(m_errMsgrwlock, m_needLock);
    return m_errmsg;
}

[[gnu::flatten]] int CLogger::write_baselog(const char* data, unsigned int len, int8_t logType,
                                            int8_t proType, unsigned int timestamp) {
    if (!m_isInit || m_iMid != -1 || static_cast<uint8_t>(logType) > kMaxBaseLogType) {
        return refuse_baselog("writebaselog2: is not init", logType);
    }
    const uint8_t* const rate = m_pSampling->knownRate(logType);
    if (rate == nullptr) {
        return write_without_rate(data, len, logType, proType, timestamp);
    }
    if (m_pSampling->filters(__atomic_load_n(rate, __ATOMIC_RELAXED))) {
        return QV_ERR_OK;
    }
    return comm_write(data, len, logType, proType, timestamp);
}

// Apart, so that a record that is dropped saves no register for the search.
[[gnu::flatten, gnu::noinline]] int CLogger::write_without_rate(const char* data, unsigned int len,
                                                                int8_t logType, int8_t proType,
                                                                unsigned int timestamp) {
    m_pSampling->tryGetIndex();
    return comm_write(data, len, logType, proType, timestamp);
}

[[gnu::cold, gnu::noinline]] int CLogger::refuse_baselog(const char* notInitialised,
                                                         int8_t logType) {
    if (!m_isInit) {
        update_errmsg("%s", notInitialised);
        return QV_ERR_INIT;
    }
    if (m_iMid != -1) {
        update_errmsg("write_baselog: wrong invoke");
    } else {
        update_errmsg("write_baselog: wrong logtype %d", logType);
    }
    return QV_ERR_LOG_TYPE;
}

int CLogger::write_baselog(int8_t type, const std::string& data, bool /*fallFlag*/,
                           unsigned int timestamp) {
    if (!m_isInit) {
        update_errmsg("writebaselog: is not init");
        return QV_ERR_INIT;
    }
    if (data.empty()) {
        update_errmsg("write_baselog: data empty");
        return QV_ERR_LENGTH;
    }
    // A length that 32 bits cannot hold stays one that no request can have.
    const auto length = static_cast<unsigned int>(std::min<size_t>(data.size(), UINT_MAX));
    return write_baselog(data.data(), length, type, 0, timestamp);
}

int CLogger::write_baselog(int8_t type, unsigned int timestamp, const char* fmt, ...) {
    if (!m_isInit || m_iMid != -1 || type < 0) {
        return refuse_baselog("writebaselog: not init", type);
    }
    if (m_pSampling->needFilter(type)) {
        return QV_ERR_OK;
    }
    va_list arguments;
    va_start(arguments, fmt);
    const int res = write_formatted(type, timestamp, fmt, arguments);
    va_end(arguments);
    return res;
}

int CLogger::write_formatted(int8_t type, unsigned int timestamp, const char* fmt,
                             va_list arguments) {
    const CallScope scope;
    char format[kFormatSize];
    char text[kTextSize];
    rewriteFormat(fmt, format);
    const int formatted = vsnprintf(text, sizeof(text), format, arguments);
    const size_t length =
        formatted < 0 ? strlen(text) : std::min<size_t>(formatted, sizeof(text) - 1);
    return comm_write(text, static_cast<unsigned int>(length), type, 0, timestamp);
}

struct CLogger::ModuleCall {
    int mid;
    int sid;
    int ifid;
    const std::string* fip;  ///< null: 0.0.0.0
    const std::string& mip;
    const std::string& sip;
    int retval;
    int result;
    int delay;
    int reqLen;
    int rspLen;

    bool fipTooLong() const { return fip->size() > kMaxAddressLength; }
    in_addr_t fipAddress() const { return fip != nullptr ? parseAddress(*fip) : 0; }
};

int CLogger::write_modulelog(int sid, int ifid, std::string& mip, std::string& sip, int retval,
                             int result, int delay) {
    return write_modulelog(
        ModuleCall{m_iMid, sid, ifid, nullptr, mip, sip, retval, result, delay, 0, 0});
}

int CLogger::write_modulelog(int sid, int ifid, std::string& fip, std::string& mip,
                             std::string& sip, int retval, int result, int delay, int reqLen,
                             int rspLen) {
    return write_modulelog(m_iMid, sid, ifid, fip, mip, sip, retval, result, delay, reqLen, rspLen);
}

int CLogger::write_modulelog(int mid, int sid, int ifid, std::string& fip, std::string& mip,
                             std::string& sip, int retval, int result, int delay, int reqLen,
                             int rspLen) {
    const ModuleCall call{mid, sid, ifid, &fip, mip, sip, retval, result, delay, reqLen, rspLen};
    return call.fipTooLong() ? fip_too_long() : write_modulelog(call);
}

int CLogger::write_modulelog_forIM(int sid, int ifid, std::string& mip, std::string& sip,
                                   int retval, int result, int delay) {
    return write_modulelog_forIM(
        ModuleCall{m_iMid, sid, ifid, nullptr, mip, sip, retval, result, delay, 0, 0});
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
    const ModuleCall call{mid, sid, ifid, &fip, mip, sip, retval, result, delay, reqLen, rspLen};
    return call.fipTooLong() ? fip_too_long() : write_modulelog_forIM(call);
}

int CLogger::fip_too_long() {
    update_errmsg("write_modulelog: fip addr length invalid");
    return QV_ERR_ADDRESS_LENGTH;
}

// Leaves in `rate` how many calls the record stands for, or kDropped.
int CLogger::check_module(const ModuleCall& call, int8_t logType, int& rate) {
    if (!m_isInit) {
        update_errmsg("writemodulelog: is not init");
        return QV_ERR_INIT;
    }
    if (m_iMid == -1) {
        update_errmsg("write_modulelog: init error");
        return QV_ERR_INIT;
    }
    if (call.delay < 0 || call.sid <= 0 || call.ifid <= 0 || call.mid <= 0) {
        update_errmsg("write_modulelog: delay[%d] mid[%d] sid[%d] ifid[%d] error", call.delay,
                      call.mid, call.sid, call.ifid);
        return QV_ERR_ARGUMENT;
    }
    if (call.reqLen < 0 || call.rspLen < 0) {
        update_errmsg("write_modulelog: reqLen[%d] rspLen[%d] error", call.reqLen, call.rspLen);
        return QV_ERR_ARGUMENT;
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
        return QV_ERR_ADDRESS_LENGTH;
    }
    return QV_ERR_OK;
}

[[gnu::flatten]] int CLogger::write_modulelog(const ModuleCall& call) {
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
    ModuleInvokeMsg& invoke = body.invoke;
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
    invoke.ullTotalDelay = static_cast<uint64_t>(int64_t{invoke.iDelay});
    invoke.uiFip = call.fipAddress();
    body.reserved.ullTotalReqPacketSize = static_cast<uint64_t>(int64_t{times(rate, call.reqLen)});
    body.reserved.ullTotalRspPacketSize = static_cast<uint64_t>(int64_t{times(rate, call.rspLen)});
    static_assert(sizeof(body) == 172, "the agent reads these bytes");
    return comm_write(reinterpret_cast<const char*>(&body), sizeof(body), kModuleLogType, 1,
                      static_cast<unsigned int>(time(nullptr)));
}

[[gnu::flatten]] int CLogger::write_modulelog_forIM(const ModuleCall& call) {
    int rate = 0;
    const int res = check_module(call, LT_NORMAL, rate);
    if (res != QV_ERR_OK || rate == kDropped) {
        return res;
    }
    const CallScope scope;
    const int count = std::max(rate, 1);
    const ModuleText values = {
        {kTypeId, static_cast<int>(time(nullptr)), call.mid, call.sid, call.ifid},
        {call.fipAddress(), parseAddress(call.mip), parseAddress(call.sip)},
        {call.result, call.retval, count, times(count, call.delay), call.delay, call.delay,
         call.delay, times(count, call.reqLen), times(count, call.rspLen)}};
    char text[kModuleTextSize];
    const size_t length = formatModuleText(values, text);
    return comm_write(text, static_cast<unsigned int>(length), LT_NORMAL, 0,
                      static_cast<unsigned int>(time(nullptr)));
}

int CLogger::set_stat(bool flag, int8_t t, unsigned int interval, unsigned int count) {
    const CallScope scope;
    if (!m_isInit) {
        update_errmsg("writebaselog: is not init");
        return QV_ERR_INIT;
    }
    const auto merging = lockIf(m_needLock, m_pState->statLock);
    m_isStat = flag;
    m_type = t;
    m_stat_interval = interval;
    m_stat_count = count;
    if (!flag) {
        return QV_ERR_OK;
    }
    if (!m_pState->queueLockExists) {
        pthread_rwlock_init(&m_queue_lock, nullptr);
        m_pState->queueLockExists = true;
    }
    std::unique_lock<std::mutex> starting(statThreads.mutex);
    const int res = statThreads.start(this);
    starting.unlock();
    if (res != 0) {
        update_errmsg("start statistical thread error");
    }
    return res;
}

int CLogger::write_statlogs(const std::string& data, std::map<std::string, int>& statistics,
                            int stattype, unsigned int timestamp) {
    const CallScope scope;
    if (!m_isStat) {
        update_errmsg("write statlog: is not open, please call set_stat(true)");
        return QV_ERR_INIT;
    }
    if (data.empty()) {
        update_errmsg("write_baselog: data empty");
        return QV_ERR_LENGTH;
    }
    const auto merging = lockIf(m_needLock, m_pState->statLock);
    if (timestamp - m_stat_last_time >= m_stat_interval || m_cur_stat_logs.size() >= m_stat_count) {
        const int res = ensure_stat_thread();
        if (res != 0) {
            return res;
        }
        close_batch(timestamp);
    }
    merge(m_cur_stat_logs[data], statistics, stattype);
    return QV_ERR_OK;
}

int CLogger::ensure_stat_thread() {
    std::unique_lock<std::mutex> probing(statThreads.mutex);
    if (!statThreads.gone()) {
        return 0;
    }
    const int res = statThreads.start(this);
    probing.unlock();
    update_errmsg("the statistical thread did not exists or already quit");
    if (res != 0) {
        update_errmsg("start statistical thread again error");
    }
    return res;
}

void CLogger::close_batch(unsigned int timestamp) {
    {
        const WriteGuard guard(m_queue_lock);
        m_stat_log_queues.push(std::move(m_cur_stat_logs));
    }
    m_cur_stat_logs.clear();
    m_stat_last_time = timestamp;
}

bool CLogger::take_batch(StatBatch& batch) {
    const CallScope scope;
    const WriteGuard guard(m_queue_lock);
    if (m_stat_log_queues.empty()) {
        return false;
    }
    batch = std::move(m_stat_log_queues.front());
    m_stat_log_queues.pop();
    return true;
}

void CLogger::serve_batches() {
    while (!m_pState->stopping) {
        StatBatch batch;
        if (take_batch(batch)) {
            write_batch(batch);
            continue;
        }
        std::unique_lock<std::mutex> guard(m_pState->stopLock);
        m_pState->stop.wait_for(guard, kStatPause, [this] { return m_pState->stopping.load(); });
    }
}

void CLogger::write_batch(const StatBatch& batch) {
    for (auto entry = batch.begin(); entry != batch.end() && !m_pState->stopping; ++entry) {
        try {
            std::string record;
            record.reserve(kMaxStatText);
            appendStatText(record, entry->first.c_str());
            for (const auto& [name, value] : entry->second) {
                char number[kLongestInt + 1] = {};
                appendNumber(number, value);
                appendStatText(record, "&");
                appendStatText(record, name.c_str());
                appendStatText(record, "=");
                appendStatText(record, number);
            }
            write_baselog(m_type, record, true, static_cast<unsigned int>(time(nullptr)));
        } catch (const std::exception&) {
            // Out of memory costs this record. Nothing wider is caught: the thread library ends
            // threads by exceptions of its own.
        }
    }
}

void CLogger::end_stat_threads() {
    {
        const std::lock_guard<std::mutex> guard(m_pState->stopLock);
        m_pState->stopping = true;
    }
    m_pState->stop.notify_all();
    StatThreads::Thread* ended = nullptr;
    {
        const std::lock_guard<std::mutex> guard(statThreads.mutex);
        ended = statThreads.forget(this);
    }
    while (ended != nullptr) {
        const std::unique_ptr<StatThreads::Thread> thread(ended);
        ended = thread->older;
        if (thread->running) {
            pthread_join(thread->id, nullptr);
        }
    }
}

int CLogger::encode(std::string& src_data, std::string& dst_data) {
    const CallScope scope;
    std::string escaped;
    for (const char byte : src_data) {
        const char* const escape = escapeOf(byte);
        escape != nullptr ? escaped.append(escape) : escaped.append(1, byte);
    }
    dst_data = std::move(escaped);
    return QV_ERR_OK;
}

int CLogger::pack_send_buff(char*& pBuff, int& retLen, const char* tmpData, unsigned int tmpLen,
                            int8_t logType, int8_t proType, unsigned int tm) {
    const CallScope scope;
    if (!m_isInit) {
        update_errmsg("pack_send_buff: logname is not init");
        return QV_ERR_INIT;
    }
    if (tmpData == nullptr) {
        update_errmsg("pack_send_buff: data is null");
        return QV_ERR_NULL_DATA;
    }
    if (tmpLen > kMaxPackedRecord) {
        update_errmsg("pack: length is %u > %d", tmpLen, kMaxPackedRecord);
        return QV_ERR_LENGTH;
    }
    if (proType != 0 && proType != 1) {
        update_errmsg("pack_send_buff error pro type[%d]", proType);
        return QV_ERR_PROTOCOL_TYPE;
    }
    if (logType < 0 || logType == kModuleLogType) {
        update_errmsg("pack_send_buff error logtype[%d]", logType);
        return QV_ERR_LOG_TYPE;
    }
    const unsigned int length = m_reqMsgHdrLen + m_appnamePartLen + tmpLen;
    pBuff = new char[length];
    retLen = static_cast<int>(length);
    frame(pBuff, tmpData, tmpLen, logType, proType, tm);
    return QV_ERR_OK;
}

// What a sent record runs through is inlined here, across the files: each return after a system
// call is one that the processor predicts wrongly. What only a failure needs stands apart, cold.
[[gnu::flatten, gnu::noinline]] int CLogger::comm_write(const char* data, unsigned int len,
                                                        int8_t logType, int8_t proType,
                                                        unsigned int tm) {
    const CallScope scope;
    if (!m_isInit) {
        update_errmsg("comm_write: logname is not init");
        return QV_ERR_INIT;
    }
    if (data == nullptr) {
        update_errmsg("comm_write: data is null");
        return QV_ERR_NULL_DATA;
    }
    if (proType != 0 && proType != 1) {
        update_errmsg("comm_write error cmd[%d]", proType);
        return QV_ERR_PROTOCOL_TYPE;
    }
    const uint64_t length = uint64_t{m_appnamePartLen} + m_reqMsgHdrLen + len;
    if (length > INT_MAX) {
        update_errmsg("sendWithoutRecv buff length -1");
        return QV_ERR_BUFFER_LENGTH;
    }
    const std::unique_ptr<char[]> request(new char[length]);
    frame(request.get(), data, len, logType, proType, tm);
    char failure[kErrorTextSize];
    const int res =
        m_pSocketClient->deliver(request.get(), static_cast<int>(length), m_needLock, failure);
    if (res == QV_ERR_OK) {
        return res;
    }
    return not_sent(request.get(), static_cast<uint32_t>(length), res, failure);
}

[[gnu::cold, gnu::noinline]] int CLogger::not_sent(const char* request, uint32_t length, int res,
                                                   const char* failure) {
    replaceErrorText(m_errmsg, m_errMsgrwlock, m_needLock, failure);
    const bool unreachable = res == QV_ERR_CONNECT || res == QV_ERR_WRITE;
    return unreachable && !storeInFallbackFile(request, length) ? QV_ERR_FALLBACK_FULL : res;
}

void CLogger::frame(char* request, const char* data, unsigned int len, int8_t logType,
                    int8_t proType, unsigned int tm) const {
    const uint32_t bodyLength = m_appnamePartLen + len;
    const bool longForm = bodyLength > kMaxShortBody;
    auto* const header = new (request) ApiReqMsgHeader;
    header->cmd = proType == 0 ? kTextCommand : kBinaryCommand;
    header->logType = static_cast<uint8_t>(logType) | 0x80U;
    header->len = longForm ? 0 : htons(static_cast<uint16_t>(bodyLength));
    header->ver = htons(kProtocolVersion);
    header->flag = htons(longForm ? kLongForm : kShortForm);
    header->timestamp = htonl(tm);
    header->reservedInt = longForm ? htonl(bodyLength) : 0;
    char* const name = request + sizeof(*header);
    const uint16_t nameLength = htons(m_appnameLen);
    memcpy(name, &nameLength, sizeof(nameLength));
    memcpy(name + sizeof(nameLength), m_appname.data(), m_appnameLen);
    memcpy(name + m_appnamePartLen, data, len);
}

}  // namespace Quorvel

void* StartStatThreads(void* arg) {
    static_cast<Quorvel::CLogger*>(arg)->serve_batches();
    return nullptr;
}
