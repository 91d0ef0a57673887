#ifndef QVAPI_SOCKET_CLIENT_H
#define QVAPI_SOCKET_CLIENT_H

#include <netinet/in.h>
#include <pthread.h>
#include <stdint.h>
#include <sys/un.h>
#include <time.h>

#include <atomic>
#include <string>

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
/// buffer of 1 MiB full. With locking, writers on one stream take turns in no fixed order, so a
/// call also waits for those that get ahead of it; one that waited while another failed gives up at
/// once. A datagram never waits.
///
/// Thread safety: init() and the destructor need the object to themselves. After init(type, true),
/// any number of threads may send with `lock` true; otherwise no two operations may overlap. Every
/// operation leaves errno as it was.
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
    /// - 7: stream, no connection. While an attempt is not yet allowed, and for a call that waited
    ///   while another thread's send failed: "return directly and will retry after [%d] seconds"
    ///   (0: at the next send); otherwise the step of connecting that failed: "create socket
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

    /// Sends; on a failure, leaves its text in `failure` unless that is null.
    int deliver(char* buff, int length, bool lock, char* failure);
    int stream_write(char* buff, int length, bool lock, char* failure);
    int connected_write(char* buff, int length, bool lock);
    int conn(bool lock);
    int64_t back_off_left(time_t now) const;
    int refuse_attempt(int64_t seconds);
    bool needRetry();
    int real_conn();
    bool start_connect(int fd, bool local);
    bool finish_connect(int fd);
    int set_non_block(int fd);
    int set_block(int fd);
    int tcp_write(int fd, char* buff, int length);
    int udp_write(char* buff, int length, char* failure);
    bool udp_open();
    int udp_failed(char* failure);
    int open_socket(int family, int type);
    void disconnect(int fd);
    void update_errmsg(const char* cErrmsg, ...) __attribute__((format(printf, 2, 3)));
    void copy_errmsg(char* text);

    int m_iFd;
    int8_t m_cSocketType;
    std::atomic<bool> m_bConnected;
    uint32_t m_iLastConnTime;
    sockaddr_un m_serverAddr_un;
    sockaddr_in m_serverAddr_in;
    bool m_bNeedLock;
    pthread_rwlock_t m_connLock;
    pthread_rwlock_t m_errMsgrwlock;
    std::string m_strErrmsg;
    bool m_noAgent;
    State* m_pState;
};

}  // namespace Quorvel

#endif  // QVAPI_SOCKET_CLIENT_H
