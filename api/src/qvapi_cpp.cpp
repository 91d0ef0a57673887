#include "qvapi_cpp.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <memory>

#include "escape.h"
#include "fallback_file.h"
#include "formatted_text.h"
#include "locks.h"
#include "logger_state.h"
#include "probes.h"
#include "qvapi_sampling.h"
#include "qvapimsg.h"
#include "socket_client.h"

namespace Quorvel {
namespace {

const int kSamplingKey = 9777;
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

char fallbackFile[] = "/data/qvagent/msgdat.dat";
const off_t kMaxFallbackSize = 1000000000;

// A request in the making. The operators for arrays would call these.
class RequestMemory {
 public:
    explicit RequestMemory(size_t size) : m_bytes(static_cast<char*>(::operator new(size))) {}
    ~RequestMemory() { ::operator delete(m_bytes); }
    RequestMemory(const RequestMemory&) = delete;
    RequestMemory& operator=(const RequestMemory&) = delete;
    char* get() const { return m_bytes; }

 private:
    char* const m_bytes;
};

}  // namespace

void CLogger::State::lockForFork() {
    if (logger.m_needLock) {
        statLock.lock();
    }
    queueLockedForFork = queueLockExists;
    if (queueLockedForFork) {
        pthread_rwlock_wrlock(&logger.m_queue_lock);
    }
    if (logger.m_needLock) {
        errorText.lockForFork();
    }
}

void CLogger::State::unlockAfterFork() {
    if (logger.m_needLock) {
        errorText.unlockAfterFork();
    }
    if (queueLockedForFork) {
        pthread_rwlock_unlock(&logger.m_queue_lock);
    }
    if (logger.m_needLock) {
        statLock.unlock();
    }
}

void CLogger::State::renewInChild() {
    makeAnew(statLock);
    makeAnew(stopLock);
    makeAnew(stop);
    if (queueLockExists) {
        makeAnew(logger.m_queue_lock);
    }
    if (logger.m_needLock) {
        errorText.renewInChild();
    }
}

CLogger::CLogger(int8_t tmpSocketType, bool isLock)
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
    const CallScope scope;
    m_stat_last_time = static_cast<uint32_t>(time(nullptr));
    if (m_needLock) {
        pthread_rwlock_init(&m_errMsgrwlock, nullptr);
    }
    auto state = std::make_unique<State>(*this);
    new (&m_stat_log_queues) decltype(m_stat_log_queues);
    m_pState = state.release();
}

// Leaves nothing to the members' own destruction, which the scope does not cover.
CLogger::~CLogger() {
    const CallScope scope;
    const Uncancelled uncancelled;
    end_stat_threads();
    delete m_pSocketClient;
    m_pSocketClient = nullptr;
    delete m_pSampling;
    m_pSampling = nullptr;
    const bool queueLockExists = m_pState->queueLockExists;
    delete m_pState;
    if (queueLockExists) {
        pthread_rwlock_destroy(&m_queue_lock);
    }
    if (m_needLock) {
        pthread_rwlock_destroy(&m_errMsgrwlock);
    }
    using Queue = decltype(m_stat_log_queues);
    m_stat_log_queues.~Queue();
    m_cur_stat_logs.clear();
    m_cur_stat_log.clear();
    std::string().swap(m_errmsg);
    std::string().swap(m_appname);
}

int CLogger::init(std::string logName) {
    const CallScope scope;
    return init(std::move(logName), false);
}

int CLogger::init(int mid) {
    const CallScope scope;
    char text[16] = {};
    snprintf(text, sizeof(text), "%d", mid);
    return init(std::string(text), true);
}

int CLogger::init(std::string logName, bool isModule) {
    m_isStat = false;
    if (m_isInit) {
        update_errmsg("init: already init with appname:%s", m_appname.c_str());
        return QV_ERR_INIT;
    }
    if (logName.empty()) {
        update_errmsg("init: length of logName is 0");
        return QV_ERR_INIT;
    }
    std::string name = isModule ? "mod" + logName : logName;
    if (name.size() > static_cast<size_t>(kMaxNameLength)) {
        update_errmsg("init: length of logName is %zu, more than %d", name.size(), kMaxNameLength);
        return QV_ERR_INIT;
    }
    m_appname = std::move(name);
    const int mid = isModule ? static_cast<int>(strtol(logName.c_str(), nullptr, 10)) : -1;
    if (isModule && mid < 1) {
        update_errmsg("init mod mid[%s] error", logName.c_str());
        return QV_ERR_INIT;
    }
    auto client = std::make_unique<SocketClient>();
    auto sampling = std::make_unique<Sampling>();
    sampling->init(m_appname, kSamplingKey, QV_SAMPLING_TABLE_SIZE);
    // From here on nothing fails: a refused id leaves m_iMid alone, and so does a lack of memory.
    if (isModule) {
        m_iMid = mid;
    }
    const bool stream = m_iMid == -1 && (m_socketType == 0 || m_socketType == 1);
    client->init(stream ? m_socketType : kUdp, m_needLock);
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

[[gnu::flatten]] int CLogger::write_baselog(const char* data, unsigned int len, int8_t logType,
                                            int8_t proType, unsigned int timestamp) {
    if (!m_isInit || m_iMid != -1 || static_cast<uint8_t>(logType) > kMaxBaseLogType) {
        return refuse_baselog("writebaselog2: is not init", logType, len);
    }
    switch (m_pSampling->decide(logType)) {
        case Sampling::Decision::kDrop:
            return QV_ERR_OK;
        case Sampling::Decision::kLookUp:
            return look_up_and_write(data, len, logType, proType, timestamp);
        case Sampling::Decision::kKeep:
            break;
    }
    return comm_write(data, len, logType, proType, timestamp);
}

// Apart, so that a record that is dropped by its rate alone saves no register.
[[gnu::flatten, gnu::noinline]] int CLogger::look_up_and_write(const char* data, unsigned int len,
                                                               int8_t logType, int8_t proType,
                                                               unsigned int timestamp) {
    return m_pSampling->lookUp(logType) ? QV_ERR_OK
                                        : comm_write(data, len, logType, proType, timestamp);
}

int CLogger::write_baselog(int8_t type, const std::string& data, bool /*fallFlag*/,
                           unsigned int timestamp) {
    // A length that 32 bits cannot hold stays one that no request can have.
    const auto length = static_cast<unsigned int>(std::min<size_t>(data.size(), UINT_MAX));
    if (!m_isInit) {
        return refuse_baselog("writebaselog: is not init", type, length);
    }
    if (data.empty()) {
        update_errmsg("write_baselog: data empty");
        return failed(QV_ERR_LENGTH, type, 0);
    }
    return write_baselog(data.data(), length, type, 0, timestamp);
}

int CLogger::write_baselog(int8_t type, unsigned int timestamp, const char* fmt, ...) {
    if (!m_isInit || m_iMid != -1 || type < 0) {
        return refuse_baselog("writebaselog: not init", type, 0);
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

// Apart, so that the forms that need less have no room for its text on their stack.
[[gnu::noinline]] int CLogger::write_formatted(int8_t type, unsigned int timestamp, const char* fmt,
                                               va_list arguments) {
    const CallScope scope;
    char text[kFormattedTextSize];
    const size_t length = formatText(fmt, arguments, text);
    return comm_write(text, static_cast<unsigned int>(length), type, 0, timestamp);
}

[[gnu::cold, gnu::noinline]] int CLogger::refuse_baselog(const char* notInitialised, int8_t logType,
                                                         unsigned int len) {
    if (!m_isInit) {
        update_errmsg("%s", notInitialised);
        return failed(QV_ERR_INIT, logType, len);
    }
    if (m_iMid != -1) {
        update_errmsg("write_baselog: wrong invoke");
    } else {
        update_errmsg("write_baselog: wrong logtype %d", logType);
    }
    return failed(QV_ERR_LOG_TYPE, logType, len);
}

// What a sent record runs through is inlined here, across the files: each return after a system
// call is one that the processor predicts wrongly. What only a failure needs stands apart, cold.
[[gnu::flatten, gnu::noinline]] int CLogger::comm_write(const char* data, unsigned int len,
                                                        int8_t logType, int8_t proType,
                                                        unsigned int tm) {
    const CallScope scope;
    if (!m_isInit) {
        update_errmsg("comm_write: logname is not init");
        return failed(QV_ERR_INIT, logType, len);
    }
    if (data == nullptr) {
        update_errmsg("comm_write: data is null");
        return failed(QV_ERR_NULL_DATA, logType, len);
    }
    if (proType != 0 && proType != 1) {
        update_errmsg("comm_write error cmd[%d]", proType);
        return failed(QV_ERR_PROTOCOL_TYPE, logType, len);
    }
    const uint64_t length = uint64_t{m_appnamePartLen} + m_reqMsgHdrLen + len;
    if (length > INT_MAX) {
        update_errmsg("sendWithoutRecv buff length -1");
        return failed(QV_ERR_BUFFER_LENGTH, logType, len);
    }
    const RequestMemory request(length);
    frame(request.get(), data, len, logType, proType, tm);
    const CaughtFailure failure;
    const int res = m_pSocketClient->deliver(request.get(), static_cast<int>(length), m_needLock);
    if (res == QV_ERR_OK) {
        QVAPI_PROBE(sent, m_appname.c_str(), logType, len, m_pSocketClient->m_cSocketType);
        return res;
    }
    return failed(not_sent(request.get(), static_cast<uint32_t>(length), res, failure.text()),
                  logType, len);
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
    char* const name = request + m_reqMsgHdrLen;
    const uint16_t nameLength = htons(m_appnameLen);
    memcpy(name, &nameLength, sizeof(nameLength));
    memcpy(name + sizeof(nameLength), m_appname.data(), m_appnameLen);
    memcpy(name + m_appnamePartLen, data, len);
}

[[gnu::cold, gnu::noinline]] int CLogger::not_sent(const char* request, uint32_t length, int res,
                                                   const char* failure) {
    m_pState->errorText.replace(*failure != '\0' ? failure : m_pSocketClient->get_errmsg().c_str());
    const bool unreachable = res == QV_ERR_CONNECT || res == QV_ERR_WRITE;
    return unreachable && !turn_over(request, length) ? QV_ERR_FALLBACK_FULL : res;
}

// @return whether the fallback file takes records; not whether it has this one.
bool CLogger::turn_over(const char* request, uint32_t length) {
    const auto makeRecord = [&] {
        std::unique_ptr<char[]> record(new char[sizeof(length) + length]);
        memcpy(record.get(), &length, sizeof(length));
        memcpy(record.get() + sizeof(length), request, length);
        return record;
    };
    const unsigned int recordLength = sizeof(length) + length;
    bool missing = false;
    {
        const FallbackFile file(fallbackFile, O_RDWR | O_APPEND);
        if (file.isOpen()) {
            if (file.size() > kMaxFallbackSize) {
                QVAPI_PROBE(fallback, recordLength, false);
                return false;
            }
            file.append(makeRecord().get(), recordLength);
            return true;
        }
        missing = errno == ENOENT;
    }
    // One that this process may not both read and write is measured and appended to apart.
    if (!missing && !need_disaster(fallbackFile)) {
        QVAPI_PROBE(fallback, recordLength, false);
        return false;
    }
    write_bin_file(makeRecord().get(), recordLength, fallbackFile);
    return true;
}

bool CLogger::need_disaster(char* fileName) {
    unsigned int size = 0;
    get_filesize(fileName, size);
    return size <= kMaxFallbackSize;
}

int CLogger::get_filesize(char* filename, unsigned int& size) {
    if (filename == nullptr) {
        return -1;
    }
    const FallbackFile file(filename, O_RDONLY);
    if (file.isOpen()) {
        size = static_cast<unsigned int>(std::min<off_t>(file.size(), UINT_MAX));
    }
    return 0;
}

void CLogger::write_bin_file(const char* data, unsigned int len, const char* fileName) {
    if (fileName == nullptr || data == nullptr || len == 0) {
        return;
    }
    const FallbackFile file(fileName, O_WRONLY | O_APPEND | O_CREAT);
    if (file.isOpen()) {
        file.append(data, len);
    } else {
        QVAPI_PROBE(fallback, len, false);
    }
}

// The result of a record that was not sent.
[[gnu::cold, gnu::noinline]] int CLogger::failed(int code, int8_t logType, unsigned int len) const {
    QVAPI_PROBE(failed, code, m_appname.c_str(), logType, len);
    return code;
}

[[gnu::cold, gnu::noinline]] void CLogger::update_errmsg(const char* cErrmsg, ...) {
    const CallScope scope;
    va_list arguments;
    va_start(arguments, cErrmsg);
    m_pState->errorText.replace(FormattedText(cErrmsg, arguments).text);
    va_end(arguments);
}

std::string CLogger::get_errmsg() {
    const CallScope scope;
    return m_pState->errorText.copy();
}

int CLogger::encode(std::string& src_data, std::string& dst_data) {
    const CallScope scope;
    dst_data = escaped(src_data);
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

}  // namespace Quorvel
