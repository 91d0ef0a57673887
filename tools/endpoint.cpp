#include "endpoint.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>

#include "agent_address.h"

namespace Quorvel {
namespace {

const int kDatagramBufferSize = 8 << 20;

Descriptor openSocket(int family, int type) {
    return Descriptor(socket(family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

template <typename Address>
int bindTo(int fd, const Address& address) {
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

template <typename Address>
int connectTo(int fd, const Address& address) {
    return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

/// Applications may log in bursts; a datagram that finds the buffer full is lost without a trace.
void enlargeReceiveBuffer(int fd) {
    const int size = kDatagramBufferSize;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    }
}

}  // namespace

Endpoint::Endpoint(Transport transport, mode_t socketMode) : m_transport(transport) {
    switch (transport) {
        case Transport::kUnix:
            openUnix(socketMode);
            break;
        case Transport::kTcp:
            openLoopback(SOCK_STREAM);
            break;
        case Transport::kUdp:
            openLoopback(SOCK_DGRAM);
            break;
    }
}

// The file goes while the socket still listens, so that no other process can have seen it as stale
// and put its own in place in between.
Endpoint::~Endpoint() {
    struct stat status;
    if (m_inode != 0 && lstat(kAgentSocketPath, &status) == 0 && status.st_ino == m_inode) {
        unlink(kAgentSocketPath);
    }
}

std::string Endpoint::name() const {
    const std::string address = m_transport == Transport::kUnix
                                    ? kAgentSocketPath
                                    : "127.0.0.1:" + std::to_string(kAgentPort);
    return std::string(transportName(m_transport)) + " " + address;
}

void Endpoint::openUnix(mode_t socketMode) {
    const auto directory = std::filesystem::path(kAgentSocketPath).parent_path();
    makeDirectory(directory.parent_path());
    makeDirectory(directory);
    // From the look at the old file to the new socket's listening, this lock keeps other processes
    // from taking the one for stale or removing the other.
    const Descriptor lock(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (lock.get() < 0 || flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            fail("another process has locked " + directory.string());
        }
        failWithErrno("cannot lock its directory");
    }
    removeStaleFile();
    m_socket = openSocket(AF_UNIX, SOCK_STREAM);
    struct stat status;
    if (bindTo(fd(), agentUnixAddress()) != 0 || chmod(kAgentSocketPath, socketMode) != 0 ||
        lstat(kAgentSocketPath, &status) != 0) {
        failWithErrno("cannot create the socket");
    }
    m_inode = status.st_ino;
    listenForConnections();
}

// Servers of every user pass through it to the socket, whatever this process's umask.
void Endpoint::makeDirectory(const std::string& path) const {
    if (mkdir(path.c_str(), 0700) == 0 ? chmod(path.c_str(), 0755) != 0 : errno != EEXIST) {
        failWithErrno("cannot make the directory " + path);
    }
}

void Endpoint::openLoopback(int type) {
    m_socket = openSocket(AF_INET, type);
    if (type == SOCK_STREAM) {
        const int on = 1;
        setsockopt(fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    }
    if (bindTo(fd(), agentLoopbackAddress()) != 0) {
        failWithErrno("cannot bind");
    }
    if (type == SOCK_STREAM) {
        listenForConnections();
    } else {
        enlargeReceiveBuffer(fd());
    }
}

void Endpoint::removeStaleFile() const {
    struct stat status;
    if (lstat(kAgentSocketPath, &status) != 0) {
        if (errno == ENOENT) {
            return;
        }
        failWithErrno("cannot look at the file");
    }
    if (!S_ISSOCK(status.st_mode)) {
        fail("the file is not a socket; it stays untouched");
    }
    const Descriptor probe = openSocket(AF_UNIX, SOCK_STREAM);
    if (connectTo(probe.get(), agentUnixAddress()) == 0 || errno == EAGAIN) {
        fail("another process serves it");
    }
    if (errno != ECONNREFUSED) {
        failWithErrno("cannot tell whether another process serves it");
    }
    if (unlink(kAgentSocketPath) != 0) {
        failWithErrno("cannot remove the stale socket");
    }
}

void Endpoint::listenForConnections() const {
    if (listen(fd(), SOMAXCONN) != 0) {
        failWithErrno("cannot listen");
    }
}

void Endpoint::fail(const std::string& what) const {
    throw std::runtime_error(name() + ": " + what);
}

void Endpoint::failWithErrno(const std::string& what) const {
    if (errno == EADDRINUSE) {
        fail("another process serves it");
    }
    const bool forbidden = errno == EACCES || errno == EPERM || errno == EROFS;
    const bool hasOtherWays = forbidden && m_transport == Transport::kUnix;
    fail(what + ": " + strerror(errno) +
         (hasOtherWays ? " (--tcp --udp listen without this permission)" : ""));
}

}  // namespace Quorvel
