#ifndef QVAPI_SOCKET_CLIENT_H
#define QVAPI_SOCKET_CLIENT_H

#include <netinet/in.h>
#include <pthread.h>
#include <stdint.h>
#include <sys/un.h>
#include <time.h>

#include <atomic>
#include <string>

#include "qvapi_abi.h"

namespace Quorvel {

/// Sends framed requests to the agent on this host and never reads a reply. The endpoints are the
/// Unix-domain stream socket "/data/container2host/cqv", TCP 127.0.0.1:20005 and UDP
/// 127.0.0.1:20005.
///
/// Stream connections are opened by the first send and again after a failure, with at most one
/// attempt in 3 seconds, counted from the attempt's start by time(2). Sockets are close-on-exec and
/// never have descriptor 0, 1 or 2.
///
/// How long a send may take: an attempt to connect waits at most 150 ms; a stream write waits at
/// most 5 ms (rounded up to the kernel's clock tick) each time that the agent leaves the socket's
/// buffer full (1 MiB is asked for; the kernel caps it, see net.core.wmem_max in socket(7)), which
/// is once for a request that the buffer has room for. With locking, writers on one stream take
/// turns in the order of their coming: a call waits for the writes of those before it, newcomers
/// pass it for at most 1.5 ms for each thread in the line, and nobody passes once the first in line
/// saw a turn of 5 ms. With n threads that is at most n times 6.5 ms and a tick.
/// While one of them connects the others wait for it, once: when it fails, the back-off turns them
/// all away. What the scheduler takes comes on top. A datagram never waits.
///
/// Thread safety: init() and the destructor need the object to themselves. After init(type, true),
/// any number of threads may send with `lock` true; otherwise no two operations may overlap. Every
/// operation leaves errno as it was.
///
/// pthread_cancel(3): a send can be cancelled in its write to the agent, not while it waits for its
/// turn, connects or appends to the fallback file. A stream's connection is closed then, since part
/// of a request may be on it. Asynchronous cancellation is not supported.
///
/// fork: the child closes what it inherited before fork() returns there, and its first send
/// connects anew; see CLogger.
class SocketClient {
 public:
    /// Every send fails until init().
    SocketClient();
    /// Closes the socket if one is open.
    ~SocketClient();
    SocketClient(const SocketClient&) = delete;
    SocketClient& operator=(const SocketClient&) = delete;

    /// Fixes the transport (0: Unix-domain stream; 1 and every negative value: TCP; 2 and more:
    /// UDP) and whether the object is shared between threads. Call it once. Opens nothing.
    /// @return always 0
    int init(int8_t sockType, bool isLock);

    /// Sends the `length` bytes at `buff` as one request. `buff` stays the caller's and is not
    /// changed. `lock` may be true only after init(type, true).
    /// @return, and the error text left behind:
    /// - 0: all bytes were handed to the kernel; the text is unchanged.
    /// - 4: `buff` is null: "sendWithoutRecv buff is null".
    /// - 6: `length` is 0 or negative: "sendWithoutRecv buff length %d" (`length`).
    /// - 7: stream, no connection. While an attempt is not yet allowed: "return directly and will
    ///   retry after [%d] seconds"; otherwise the step of connecting that failed: "create socket
    ///   error:%d", "setnonblock error:%d", "connect failed:[%m]", "poll erro,ret:[%d],fd:[%d]",
    ///   "syncConnect connect timeout. %d %m", "1 syncConnect connect timeout. ret[%d] %m",
    ///   "2 syncConnect connect timeout. ret[%d] error[%d] %m", "POLL except error,ret:[%d],
    ///   fd:[%d]" or "setblock error:%d".
    /// - 8: stream, the write ended early and the connection was closed: "sendWithoutRecv buff
    ///   length %d, write res %d" (`length`, bytes written).
    /// - 17: the datagram was not sent whole, or its socket could not be set up (tried again at the
    ///   next send): "send udp message failed error[%d] errmsg[%m]" (errno).
    int sendWithoutRecv(char* buff, int length, bool lock);

    /// @return a copy of the last failure's text, at most 1022 characters; a success never clears
    ///   it.
    std::string get_errmsg();

 private:
    friend class CLogger;
    struct State;

    /// sendWithoutRecv() within a call that is counted already, of what is known to be sound.
    int deliver(char* buff, int length, bool lock);
    int tcp_write(int fd, char* buff, int length);
    int conn(bool lock);
    int establish();
    bool needRetry();
    int real_conn();
    bool start_connect(int fd, bool local);
    bool finish_connect(int fd);
    int set_non_block(int fd);
    int set_block(int fd);
    int udp_write(char* buff, int length);
    bool udp_open();
    int udp_failed();
    int open_socket(int family, int type);
    void disconnect(int fd);
    void update_errmsg(const char* cErrmsg, ...) __attribute__((format(printf, 2, 3)));
    void rdLock(bool lock);
    void wrLock(bool lock);
    void unLock(bool lock);

    int m_iFd;
    int8_t m_cSocketType;
    std::atomic<bool> m_bConnected;
    uint32_t m_iLastConnTime;
    sockaddr_un m_serverAddr_un;
    sockaddr_in m_serverAddr_in;
    bool m_bNeedLock;
    pthread_rwlock_t m_connLock;  // all but forks hold the senders' turn, too
    pthread_rwlock_t m_errMsgrwlock;
    std::string m_strErrmsg;
    bool m_noAgent;  // never set by the library
    State* m_pState;
};

}  // namespace Quorvel

#endif  // QVAPI_SOCKET_CLIENT_H
