#include "qvapi_cpp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <mutex>

#include "descriptor.h"
#include "error_text.h"
#include "fork_safety.h"
#include "locks.h"
#include "qvapi_sampling.h"
#include "qvapimsg.h"
#include "socket_client.h"

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

const char* const kFallbackFile = "/data/qvagent/msgdat.dat";
const unsigned int kMaxFallbackSize = 1000000000;

const size_t kFormatSize = 2048;
const size_t kTextSize = 30720;

// One append at a time in this process, for loggers without locks too: a forked child inherits no
// handle of the file, and comparing with the file-size limit holds for the write that follows.
class AppendLock final : public ForkMember {
 public:
    std::mutex mutex;

    void lockForFork() override { mutex.lock(); }
    void unlockAfterFork() override { mutex.unlock(); }
    void renewInChild() override { new (&mutex) std::mutex; }
};

AppendLock appendLock;

__attribute__((constructor)) void enrolAppendLock() {
    enrol(appendLock);
}

// Opens without waiting, and nothing but a regular file: not a FIFO's reader nor a device.
int openRegular(const char* fileName, int flags, struct stat& status) {
    const int fd =
        aboveStandardStreams(open(fileName, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666));
    if (fd >= 0 && (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))) {
        close(fd);
        return -1;
    }
    return fd;
}

// Writes the whole record or, where the process's file-size limit is in the way, nothing. Other
// processes append between the comparison and the write, so the signal that a refused write sends
// to this thread is kept from it; one that was pending before is the application's and stays.
void appendRecord(int fd, const char* data, unsigned int len, off_t size) {
    rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
    getrlimit(RLIMIT_FSIZE, &limit);
    if (limit.rlim_cur == RLIM_INFINITY) {
        (void)!write(fd, data, len);
        return;
    }
    if (static_cast<rlim_t>(size) + len > limit.rlim_cur) {
        return;
    }
    sigset_t exceeded;
    sigset_t mask;
    sigset_t pending;
    sigemptyset(&exceeded);
    sigaddset(&exceeded, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &exceeded, &mask);
    sigpending(&pending);
    if (write(fd, data, len) < 0 && errno == EFBIG && sigismember(&pending, SIGXFSZ) == 0) {
        const timespec none = {0, 0};
        sigtimedwait(&exceeded, nullptr, &none);
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

// Copies `fmt` behind "_msg=", with a tab before each percent sign but one at its very start. The
// signs of a conversion that ends in a percent sign ("%%", "% 5%") are doubled, so that the
// formatter prints them and cannot take the text behind the tab for a conversion.
void rewriteFormat(const char* fmt, char (&area)[kFormatSize]) {
    const size_t limit = kFormatSize - 1;
    size_t length = static_cast<size_t>(snprintf(area, sizeof(area), "_msg="));
    const char* literalEnd = fmt;
    for (const char* p = fmt; *p != '\0' && length < limit; ++p) {
        if (*p != '%') {
            area[length++] = *p;
            continue;
        }
        if (p >= literalEnd) {
            const char* const conversion = p + 1 + strspn(p + 1, "-+ #0'I123456789.*$hlqLjzt");
            literalEnd = *conversion == '%' ? conversion + 1 : p;
        }
        if (p != fmt) {
            area[length++] = '\t';
        }
        const size_t signs = p < literalEnd ? 2 : 1;
        if (length + signs > limit) {
            break;
        }
        memset(area + length, '%', signs);
        length += signs;
    }
    area[length] = '\0';
}

const char* escapeOf(char byte) {
    switch (byte) {
        case '\0':
            return "%00";
        case '\t':
            return "%09";
        case '\n':
            return "%0A";
        case '\r':
            return "%0D";
        case '%':
            return "%25";
        case '&':
            return "%26";
        case '=':
            return "%3D";
        default:
            return nullptr;
    }
}

}  // namespace

struct CLogger::State final : ForkMember {
    explicit State(CLogger& owner) : logger(owner) { enrol(*this); }
    ~State() { withdraw(*this); }

    void lockForFork() override;
    void unlockAfterFork() override;
    void renewInChild() override;

    CLogger& logger;
};

void CLogger::State::lockForFork() {
    if (logger.m_needLock) {
        pthread_rwlock_wrlock(&logger.m_errMsgrwlock);
    }
}

void CLogger::State::unlockAfterFork() {
    if (logger.m_needLock) {
        pthread_rwlock_unlock(&logger.m_errMsgrwlock);
    }
}

void CLogger::State::renewInChild() {
    if (logger.m_needLock) {
        pthread_rwlock_init(&logger.m_errMsgrwlock, nullptr);
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
    m_errmsg.reserve(kErrorTextSize);
    if (m_needLock) {
        pthread_rwlock_init(&m_errMsgrwlock, nullptr);
    }
    m_pState = new State(*this);
}

CLogger::~CLogger() {
    const CallScope scope;
    delete m_pSocketClient;
    delete m_pSampling;
    delete m_pState;
    if (m_needLock) {
        pthread_rwlock_destroy(&m_errMsgrwlock);
    }
}

int CLogger::init(std::string logName) {
    return init(std::move(logName), false);
}

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

void CLogger::set_socktype(int8_t st) {
    m_socketType = st;
}

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

int8_t CLogger::get_logtype() {
    return m_type;
}

bool CLogger::get_lock() {
    return m_needLock;
}

void CLogger::update_errmsg(const char* cErrmsg, ...) {
    const CallScope scope;
    va_list arguments;
    va_start(arguments, cErrmsg);
    setErrorText(m_errmsg, m_errMsgrwlock, m_needLock, cErrmsg, arguments);
    va_end(arguments);
}

std::string CLogger::get_errmsg() {
    const CallScope scope;
    const ReadGuard guard(m_errMsgrwlock, m_needLock);
    return m_errmsg;
}

int CLogger::write_baselog(const char* data, unsigned int len, int8_t logType, int8_t proType,
                           unsigned int timestamp) {
    if (!m_isInit) {
        update_errmsg("writebaselog2: is not init");
        return QV_ERR_INIT;
    }
    if (m_iMid != -1) {
        update_errmsg("write_baselog: wrong invoke");
        return QV_ERR_LOG_TYPE;
    }
    if (static_cast<uint8_t>(logType) > kMaxBaseLogType) {
        update_errmsg("write_baselog: wrong logtype %d", logType);
        return QV_ERR_LOG_TYPE;
    }
    if (m_pSampling->needFilter(logType)) {
        return QV_ERR_OK;
    }
    return comm_write(data, len, logType, proType, timestamp);
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
    if (!m_isInit) {
        update_errmsg("writebaselog: not init");
        return QV_ERR_INIT;
    }
    if (m_iMid != -1) {
        update_errmsg("write_baselog: wrong invoke");
        return QV_ERR_LOG_TYPE;
    }
    if (type < 0) {
        update_errmsg("write_baselog: wrong logtype %d", type);
        return QV_ERR_LOG_TYPE;
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

int CLogger::comm_write(const char* data, unsigned int len, int8_t logType, int8_t proType,
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
    const int res = m_pSocketClient->sendWithoutRecv(request.get(), static_cast<int>(length),
                                                     m_needLock, failure);
    if (res == QV_ERR_OK) {
        return res;
    }
    update_errmsg("%s", failure);
    const bool unreachable = res == QV_ERR_CONNECT || res == QV_ERR_WRITE;
    return unreachable ? store(request.get(), static_cast<uint32_t>(length), res) : res;
}

void CLogger::frame(char* request, const char* data, unsigned int len, int8_t logType,
                    int8_t proType, unsigned int tm) const {
    const uint32_t bodyLength = m_appnamePartLen + len;
    const bool longForm = bodyLength > kMaxShortBody;
    ApiReqMsgHeader header = {};
    header.cmd = proType == 0 ? kTextCommand : kBinaryCommand;
    header.logType = static_cast<uint8_t>(logType) | 0x80U;
    header.len = longForm ? 0 : htons(static_cast<uint16_t>(bodyLength));
    header.ver = htons(kProtocolVersion);
    header.flag = htons(longForm ? kLongForm : kShortForm);
    header.timestamp = htonl(tm);
    header.reservedInt = longForm ? htonl(bodyLength) : 0;
    const uint16_t nameLength = htons(m_appnameLen);

    memcpy(request, &header, sizeof(header));
    request += m_reqMsgHdrLen;
    memcpy(request, &nameLength, sizeof(nameLength));
    memcpy(request + sizeof(nameLength), m_appname.data(), m_appnameLen);
    memcpy(request + m_appnamePartLen, data, len);
}

int CLogger::store(const char* request, uint32_t length, int res) {
    const std::lock_guard<std::mutex> guard(appendLock.mutex);
    if (!need_disaster(kFallbackFile)) {
        return QV_ERR_FALLBACK_FULL;
    }
    const std::unique_ptr<char[]> record(new char[sizeof(length) + length]);
    memcpy(record.get(), &length, sizeof(length));
    memcpy(record.get() + sizeof(length), request, length);
    write_bin_file(record.get(), static_cast<unsigned int>(sizeof(length) + length), kFallbackFile);
    return res;
}

bool CLogger::need_disaster(const char* fileName) {
    unsigned int size = 0;
    get_filesize(fileName, size);
    return size <= kMaxFallbackSize;
}

int CLogger::get_filesize(const char* filename, unsigned int& size) {
    if (filename == nullptr) {
        return -1;
    }
    struct stat status;
    const int fd = openRegular(filename, O_RDONLY, status);
    if (fd >= 0) {
        size = static_cast<unsigned int>(std::min<off_t>(status.st_size, UINT_MAX));
        close(fd);
    }
    return 0;
}

void CLogger::write_bin_file(const char* data, unsigned int len, const char* fileName) {
    if (fileName == nullptr || data == nullptr || len == 0) {
        return;
    }
    struct stat status;
    const int fd = openRegular(fileName, O_WRONLY | O_APPEND | O_CREAT, status);
    if (fd >= 0) {
        fchmod(fd, 0666);
        appendRecord(fd, data, len, status.st_size);
        close(fd);
    }
}

}  // namespace Quorvel
