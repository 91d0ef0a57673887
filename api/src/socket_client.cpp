#include "socket_client.h"

#include <arpa/inet.h>
#include <cxxabi.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <mutex>

#include "error_text.h"
#include "fair_mutex.h"
#include "fork_safety.h"
#include "locks.h"
#include "probes.h"
#include "qvapi_errno.h"
#include "standard_streams.h"

namespace Quorvel {
namespace {

const char* const kUnixPath = "/data/container2host/cqv";
const char* const kAddress = "127.0.0.1";
const uint16_t kPort = 20005;

const int kConnectTimeoutMs = 150;
const timeval kReceiveTimeout = {0, 150000};
const timeval kSendTimeout = {0, 5000};
const int kSendBuffer = 1048576;
const int64_t kBackOffSeconds = 3;

// A fork sees each socket either open and in its client's State::openFd, or not at all: opening
// and closing are atomic under the lock, for clients without locks of their own too.
class DescriptorLock final : public ForkMember {
 public:
    std::mutex mutex;

    void lockForFork() override { mutex.lock(); }
    void unlockAfterFork() override { mutex.unlock(); }
    void renewInChild() override { makeAnew(mutex); }
};

DescriptorLock descriptorLock;

__attribute__((constructor)) void enrolDescriptorLock() { enrol(descriptorLock, nullptr); }

}  // namespace

struct SocketClient::State final : ForkMember {
    explicit State(SocketClient& owner)
        : client(owner), errorText(owner.m_strErrmsg, owner.m_errMsgrwlock, owner.m_bNeedLock) {
        enrol(*this, &owner);
    }
    ~State() { withdraw(*this); }

    void lockForFork() override;
    void unlockAfterFork() override;
    void renewInChild() override;

    SocketClient& client;
    /// Taken before m_connLock, which is taken before m_errMsgrwlock. Held for a whole stream
    /// write and for the closing that a failed one leads to.
    FairMutex sendLock;
    ErrorText errorText;
    /// The descriptor that a forked child must close, also while it is still being connected.
    std::atomic<int> openFd{-1};
    /// Whether the locks exist, and whether a fork took them: init() may run on another thread.
    std::atomic<bool> locksExist{false};
    bool lockedForFork = false;
};

void SocketClient::State::lockForFork() {
    lockedForFork = locksExist;
    if (lockedForFork) {
        sendLock.lock();
        pthread_rwlock_wrlock(&client.m_connLock);
        errorText.lockForFork();
    }
}

void SocketClient::State::unlockAfterFork() {
    if (lockedForFork) {
        errorText.unlockAfterFork();
        pthread_rwlock_unlock(&client.m_connLock);
        sendLock.unlock();
    }
}

void SocketClient::State::renewInChild() {
    const int fd = openFd.exchange(-1);
    if (fd >= 0) {
        close(fd);
    }
    if (client.m_bConnected.exchange(false)) {
        client.m_iLastConnTime = 0;
    }
    if (locksExist) {
        makeAnew(sendLock);
        makeAnew(client.m_connLock);
        errorText.renewInChild();
    }
}

SocketClient::SocketClient()
    : m_iFd(-1),
      m_cSocketType(0),
      m_bConnected(false),
      m_iLastConnTime(0),
      m_serverAddr_un(),
      m_serverAddr_in(),
      m_bNeedLock(false),
      m_connLock(),
      m_errMsgrwlock(),
      m_noAgent(false),
      m_pState(nullptr) {
    const CallScope scope;
    m_pState = new State(*this);
}

// Leaves nothing to the members' own destruction, which the scope does not cover.
SocketClient::~SocketClient() {
    const CallScope scope;
    const Uncancelled uncancelled;
    if (m_bConnected) {
        disconnect(m_iFd);
    }
    delete m_pState;
    if (m_bNeedLock) {
        pthread_rwlock_destroy(&m_connLock);
        pthread_rwlock_destroy(&m_errMsgrwlock);
    }
    std::string().swap(m_strErrmsg);
}

int SocketClient::init(int8_t sockType, bool isLock) {
    const CallScope scope;
    m_cSocketType = sockType;
    if (sockType != 0) {
        memset(&m_serverAddr_in, 0, sizeof(m_serverAddr_in));
        m_serverAddr_in.sin_family = AF_INET;
        m_serverAddr_in.sin_addr.s_addr = inet_addr(kAddress);
        m_serverAddr_in.sin_port = htons(kPort);
    } else {
        memset(&m_serverAddr_un, 0, sizeof(m_serverAddr_un));
        m_serverAddr_un.sun_family = AF_UNIX;
        snprintf(m_serverAddr_un.sun_path, sizeof(m_serverAddr_un.sun_path), "%s", kUnixPath);
    }
    m_iFd = -1;
    m_bConnected = false;
    if (isLock) {
        pthread_rwlock_init(&m_errMsgrwlock, nullptr);
        pthread_rwlock_init(&m_connLock, nullptr);
        m_pState->locksExist = true;
    }
    m_bNeedLock = isLock;
    m_iLastConnTime = 0;
    m_noAgent = false;
    return QV_ERR_OK;
}

int SocketClient::sendWithoutRecv(char* buff, int length, bool lock) {
    const CallScope scope;
    if (buff == nullptr) {
        update_errmsg("sendWithoutRecv buff is null");
        return QV_ERR_NULL_BUFFER;
    }
    if (length <= 0) {
        update_errmsg("sendWithoutRecv buff length %d", length);
        return QV_ERR_BUFFER_LENGTH;
    }
    return deliver(buff, length, lock);
}

int SocketClient::deliver(char* buff, int length, bool lock) {
    if (__builtin_expect(m_cSocketType > 1, 0)) {
        return udp_write(buff, length);
    }
    const auto turn = lockIf(lock, m_pState->sendLock);
    const int fd = m_bConnected ? m_iFd : conn(lock);
    if (fd < 0) {
        return QV_ERR_CONNECT;
    }
    int res = 0;
    try {
        res = tcp_write(fd, buff, length);
    } catch (const abi::__forced_unwind&) {  // the thread is being cancelled
        disconnect(fd);
        throw;
    }
    if (res == length) {
        return QV_ERR_OK;
    }
    disconnect(fd);
    update_errmsg("sendWithoutRecv buff length %d, write res %d", length, res);
    return QV_ERR_WRITE;
}

int SocketClient::tcp_write(int fd, char* buff, int length) {
    if (buff == nullptr || length < 0 || fd < 0) {
        return -1;
    }
    if (length == 0) {
        return 0;
    }
    int sent = 0;
    do {  // the expected way lies in one piece behind the system call, where jumps are dear
        const ssize_t res = send(fd, buff + sent, length - sent, MSG_NOSIGNAL);
        if (__builtin_expect(res < 0, 0)) {
            m_bConnected = false;
            break;
        }
        sent += static_cast<int>(res);
    } while (__builtin_expect(sent < length, 0));
    return sent;
}

[[gnu::cold, gnu::noinline]] int SocketClient::conn(bool lock) {
    struct Unlock {
        SocketClient& client;
        const bool lock;
        ~Unlock() { client.unLock(lock); }
    };
    const Uncancelled uncancelled;
    {
        rdLock(lock);
        const Unlock unlock{*this, lock};
        if (m_bConnected) {
            return m_iFd;
        }
    }
    wrLock(lock);
    const Unlock unlock{*this, lock};
    if (m_bConnected) {
        return m_iFd;
    }
    return needRetry() ? establish() : -1;
}

int SocketClient::establish() {
    const int fd = real_conn();
    const int blocks = fd > 0 ? set_block(fd) : 0;
    QVAPI_PROBE(connect, m_cSocketType, fd > 0 && blocks == 0 ? 0 : -1);
    if (fd <= 0) {
        return fd;
    }
    if (blocks != 0) {
        update_errmsg("setblock error:%d", blocks);
        disconnect(fd);
        return blocks;
    }
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kReceiveTimeout, sizeof(kReceiveTimeout));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof(kSendTimeout));
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof(kSendBuffer));
    return fd;
}

bool SocketClient::needRetry() {
    const time_t now = time(nullptr);
    const int64_t left = m_iLastConnTime + kBackOffSeconds - static_cast<int64_t>(now);
    if (left > 0) {
        update_errmsg("return directly and will retry after [%d] seconds", static_cast<int>(left));
        return false;
    }
    m_iLastConnTime = static_cast<uint32_t>(now);
    return true;
}

int SocketClient::real_conn() {
    const bool local = m_cSocketType == 0;
    const int fd = open_socket(local ? AF_UNIX : AF_INET, SOCK_STREAM);
    if (fd < 0) {
        update_errmsg("create socket error:%d", fd);
        return -1;
    }
    const int res = set_non_block(fd);
    if (res != 0) {
        update_errmsg("setnonblock error:%d", res);
        disconnect(fd);
        return res;
    }
    if (!start_connect(fd, local)) {
        disconnect(fd);
        return -1;
    }
    m_iFd = fd;
    m_bConnected = true;
    return fd;
}

bool SocketClient::start_connect(int fd, bool local) {
    const auto* const address = local ? reinterpret_cast<const sockaddr*>(&m_serverAddr_un)
                                      : reinterpret_cast<const sockaddr*>(&m_serverAddr_in);
    if (connect(fd, address, local ? sizeof(m_serverAddr_un) : sizeof(m_serverAddr_in)) == 0) {
        return true;
    }
    if (errno != EINPROGRESS && errno != EAGAIN) {
        update_errmsg("connect failed:[%m]");
        return false;
    }
    return finish_connect(fd);
}

bool SocketClient::finish_connect(int fd) {
    pollfd entry = {fd, POLLIN | POLLOUT, 0};
    const int ret = poll(&entry, 1, kConnectTimeoutMs);
    if (ret < 0) {
        update_errmsg("poll erro,ret:[%d],fd:[%d]", ret, fd);
        return false;
    }
    if (ret > 0 && (entry.revents & (POLLIN | POLLOUT)) != 0) {
        int error = 0;
        socklen_t length = sizeof(error);
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
            update_errmsg("1 syncConnect connect timeout. ret[%d] %m", ret);
            return false;
        }
        if (error != 0) {
            update_errmsg("2 syncConnect connect timeout. ret[%d] error[%d] %m", ret, error);
            return false;
        }
        return true;
    }
    if (ret > 0 && (entry.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
        update_errmsg("POLL except error,ret:[%d], fd:[%d]", ret, fd);
        return false;
    }
    update_errmsg("syncConnect connect timeout. %d %m", ret);
    return false;
}

int SocketClient::set_non_block(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags == -1 ? -1 : fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

int SocketClient::set_block(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags < 0 ? -1 : fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
}

int SocketClient::udp_write(char* buff, int length) {
    if (m_noAgent) {
        return QV_ERR_DATAGRAM;
    }
    if ((m_bConnected || udp_open()) && send(m_iFd, buff, length, MSG_NOSIGNAL) == length) {
        return QV_ERR_OK;
    }
    return udp_failed();
}

[[gnu::cold, gnu::noinline]] bool SocketClient::udp_open() {
    const Uncancelled uncancelled;
    const auto turn = lockIf(m_bNeedLock, m_pState->sendLock);
    if (m_bConnected) {
        return true;
    }
    const int fd = open_socket(AF_INET, SOCK_DGRAM);
    const auto* const address = reinterpret_cast<const sockaddr*>(&m_serverAddr_in);
    const bool connected =
        fd >= 0 && connect(fd, address, sizeof(m_serverAddr_in)) == 0 && set_non_block(fd) == 0;
    QVAPI_PROBE(connect, m_cSocketType, connected ? 0 : -1);
    if (!connected) {
        const int error = errno;
        disconnect(fd);
        errno = error;
        return false;
    }
    m_iFd = fd;
    m_bConnected = true;
    return true;
}

[[gnu::cold, gnu::noinline]] int SocketClient::udp_failed() {
    update_errmsg("send udp message failed error[%d] errmsg[%m]", errno);
    return QV_ERR_DATAGRAM;
}

int SocketClient::open_socket(int family, int type) {
    const std::lock_guard<std::mutex> guard(descriptorLock.mutex);
    const int fd = aboveStandardStreams(socket(family, type | SOCK_CLOEXEC, 0));
    m_pState->openFd = fd;
    return fd;
}

// Forgets the descriptor before it closes it: a child forked from a signal handler in between keeps
// a socket too many, and never closes a file that has taken the number.
[[gnu::cold, gnu::noinline]] void SocketClient::disconnect(int fd) {
    if (fd <= 0) {
        return;
    }
    const Uncancelled uncancelled;
    const std::lock_guard<std::mutex> guard(descriptorLock.mutex);
    m_bConnected = false;
    m_pState->openFd = -1;
    close(fd);
}

[[gnu::cold, gnu::noinline]] void SocketClient::update_errmsg(const char* cErrmsg, ...) {
    va_list arguments;
    va_start(arguments, cErrmsg);
    const FormattedText failure(cErrmsg, arguments);
    va_end(arguments);
    m_pState->errorText.replace(failure.text);
    CaughtFailure::report(failure);
}

std::string SocketClient::get_errmsg() {
    const CallScope scope;
    return m_pState->errorText.copy();
}

void SocketClient::rdLock(bool lock) {
    if (lock) {
        pthread_rwlock_rdlock(&m_connLock);
    }
}

void SocketClient::wrLock(bool lock) {
    if (lock) {
        pthread_rwlock_wrlock(&m_connLock);
    }
}

void SocketClient::unLock(bool lock) {
    if (lock) {
        pthread_rwlock_unlock(&m_connLock);
    }
}

}  // namespace Quorvel
