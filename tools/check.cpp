#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>

#include "agent_address.h"
#include "agent_sockets.h"
#include "descriptor.h"
#include "host_paths.h"
#include "record_printer.h"
#include "replay_queue.h"
#include "sampling_table.h"
#include "text_safety.h"
#include "transport.h"
#include "verbs.h"

namespace Quorvel {
namespace {

const int kConnectMilliseconds = 1000;
const int kLookMilliseconds = 20;
const uint64_t kLeastRoom = 1 << 20;
const char kNoDirectoryAdvice[] =
    "move away what stands in its directory's place; then \"qvctl setup\" makes that";

enum class Level { kGood, kNote, kBad };

struct Finding {
    Level level;
    std::string what;
    std::string advice;
};

/// Whether the agent accepts a connection that has just been made.
bool isAccepted(Transport transport) {
    for (int waited = 0; hasUnaccepted(transport); waited += kLookMilliseconds) {
        if (waited >= kConnectMilliseconds) {
            return false;
        }
        poll(nullptr, 0, kLookMilliseconds);
    }
    return true;
}

/// The error with which this user cannot connect; 0 for none.
template <typename Address>
int connectError(Transport transport, const Address& address) {
    const auto* const name = reinterpret_cast<const sockaddr*>(&address);
    const Descriptor fd(socket(name->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    int error = connect(fd.get(), name, sizeof(address)) == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
        pollfd polled = {fd.get(), POLLOUT, 0};
        if (poll(&polled, 1, kConnectMilliseconds) == 0) {
            return ETIMEDOUT;
        }
        socklen_t size = sizeof(error);
        getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    }
    return error == 0 && !isAccepted(transport) ? ETIMEDOUT : error;
}

std::string adviceToConnect(int error) {
    switch (error) {
        case ENOTDIR:
            return kNoDirectoryAdvice;
        case ENOENT:
            return "run \"qvctl setup\" where its directory is missing, and start the agent "
                   "(\"qvctl listen\" stands in for it)";
        case EACCES:
            return "\"qvctl setup\" opens the directories; the socket needs mode 0666";
        case EAGAIN:
        case ETIMEDOUT:
            return "the agent accepts no connections: look whether it hangs";
        default:
            return "start the agent (\"qvctl listen\" stands in for it)";
    }
}

Finding checkStream(const std::string& name, int error) {
    if (error == 0) {
        return {Level::kGood, name + " takes connections of this user", ""};
    }
    return {Level::kBad, name + ": " + strerror(error), adviceToConnect(error)};
}

Finding checkUdp() {
    const std::string name = "udp 127.0.0.1:" + std::to_string(kAgentPort);
    return isUdpServed() ? Finding{Level::kGood, name + " is served", ""}
                         : Finding{Level::kBad, name + " is not served: its records would be lost",
                                   adviceToConnect(ECONNREFUSED)};
}

/// Where the fallback file leads as a symbolic link; empty when it is none.
std::filesystem::path linkTarget() {
    std::error_code none;
    const std::filesystem::path target = std::filesystem::read_symlink(kFallbackFile, none);
    return target.empty() ? target : kFallbackDirectory / target;
}

/// The error with which this user cannot append to the fallback file; 0 for none. The file is
/// opened as applications do it when it is there, and not made in `directory` when it is not.
int appendError(const std::string& directory) {
    struct stat status {};
    if (stat(kFallbackFile, &status) == 0) {
        const Descriptor file(
            open(kFallbackFile, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY,
                 0666));
        return file.get() >= 0 ? 0 : errno;
    }
    const bool canBeMade =
        errno == ENOENT && faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
    return canBeMade ? 0 : errno;
}

std::string adviceToAppend(int error) {
    switch (error) {
        case ENOENT:
            return "\"qvctl setup\" makes the directory";
        case ENOTDIR:
            return kNoDirectoryAdvice;
        case EROFS:
            return "mount its file system for writing";
        default:
            return "\"qvctl setup\" opens the directory; the file needs mode 0666";
    }
}

std::string adviceToReplay(uid_t owner) {
    const bool isAllowed = geteuid() == 0 || geteuid() == owner;
    return "\"qvctl spool replay\"" +
           (isAllowed ? "" : ", run by root or by the user " + std::to_string(owner) + ",") +
           " sends its records";
}

Finding checkFallback() {
    const std::filesystem::path target = linkTarget();
    const bool isLink = !target.empty();
    const std::string name =
        std::string("fallback file ") + kFallbackFile +
        (isLink ? ", a symbolic link to " + escapeForTerminal(target.string()) : "");
    struct stat status {};
    if (stat(kFallbackFile, &status) == 0 && !S_ISREG(status.st_mode)) {
        return {Level::kBad, name + " is not a regular file", "remove what stands there"};
    }
    const int error = appendError(isLink ? target.parent_path().string() : kFallbackDirectory);
    if (error != 0) {
        return {Level::kBad, name + ": " + strerror(error),
                isLink ? "remove the link" : adviceToAppend(error)};
    }
    const auto size = static_cast<uint64_t>(status.st_size);
    const std::string fill =
        name + ": " + std::to_string(size) + " of " + std::to_string(kMaxFallbackSize) + " bytes";
    const std::string advice = isLink
                                   ? "\"qvctl spool replay\" follows no link: name the file that "
                                     "it leads to, if that is for records"
                                   : adviceToReplay(status.st_uid);
    if (size > kMaxFallbackSize) {
        return {Level::kBad, fill + ", full", advice};
    }
    if (size > 0) {
        return {Level::kNote, fill + ", not yet sent", advice};
    }
    return {isLink ? Level::kNote : Level::kGood, fill + ", writable for this user",
            isLink ? advice : ""};
}

std::optional<Finding> checkStickyBit() {
    struct stat status {};
    if (stat(kFallbackDirectory, &status) != 0 || (status.st_mode & S_ISVTX) == 0) {
        return std::nullopt;
    }
    return Finding{Level::kNote,
                   std::string(kFallbackDirectory) +
                       " has the sticky bit: the file of one user may be closed to others",
                   "\"qvctl setup\" takes it away"};
}

std::optional<Finding> checkRoom() {
    struct statvfs disk {};
    if (statvfs(kFallbackDirectory, &disk) != 0) {
        return std::nullopt;
    }
    const uint64_t room = uint64_t{disk.f_bavail} * disk.f_frsize;
    const std::string what = "room on its disk: " + std::to_string(room) + " bytes";
    if (room >= kMaxFallbackSize) {
        return Finding{Level::kGood, what, ""};
    }
    return Finding{room < kLeastRoom ? Level::kBad : Level::kNote,
                   what + ", less than the file may take", "make room on the disk"};
}

Finding checkTable() {
    try {
        const SamplingSegment segment(SamplingSegment::Access::kChange);  // as applications do
        return {Level::kGood,
                "sampling table with " + std::to_string(usedSlots(segment.table()).size()) +
                    " applications",
                ""};
    } catch (const std::exception& error) {
        return {Level::kNote, error.what(), "without it every record is kept"};
    }
}

Finding checkMarker() {
    const std::string name = std::string("sampling marker ") + kSamplingMarker;
    return hasSamplingMarker()
               ? Finding{Level::kGood, name, ""}
               : Finding{Level::kNote, name + " is missing",
                         "applications keep every record of their first minute; \"qvctl rates "
                         "create\" makes it"};
}

class Report {
 public:
    void add(const Finding& finding) {
        static const char* const kLabels[] = {"ok    ", "note  ", "FAILED"};
        static const char* const kColours[] = {"\x1B[32m", "\x1B[33m", "\x1B[31m"};
        const auto level = static_cast<size_t>(finding.level);
        std::cout << (m_coloured ? kColours[level] : "") << kLabels[level]
                  << (m_coloured ? "\x1B[0m" : "") << "  " << finding.what << '\n';
        if (!finding.advice.empty()) {
            std::cout << "        " << finding.advice << '\n';
        }
        m_isReady = m_isReady && finding.level != Level::kBad;
    }
    void add(const std::optional<Finding>& finding) {
        if (finding) {
            add(*finding);
        }
    }
    bool isReady() const { return m_isReady; }

 private:
    const bool m_coloured = recordStyle(false) == RecordStyle::kColoured;
    bool m_isReady = true;
};

bool check() {
    Report report;
    report.add(checkStream(std::string("unix ") + kAgentSocketPath,
                           connectError(Transport::kUnix, agentUnixAddress())));
    report.add(checkStream("tcp 127.0.0.1:" + std::to_string(kAgentPort),
                           connectError(Transport::kTcp, agentLoopbackAddress())));
    report.add(checkUdp());
    report.add(checkFallback());
    for (const ReplayQueue::LeftOver& left : ReplayQueue::leftOvers(kFallbackFile)) {
        report.add(Finding{Level::kNote,
                           left.path + ": " + std::to_string(left.size) + " bytes, " + left.what,
                           left.advice});
    }
    report.add(checkStickyBit());
    report.add(checkRoom());
    report.add(checkTable());
    report.add(checkMarker());
    return report.isReady();
}

}  // namespace

void addCheckVerb(CLI::App& program, int& status) {
    CLI::App* verb = program.add_subcommand(
        "check", "Tell whether this host is ready for this user's applications, and what to do.");
    verb->footer(
        "Looks at the agent's endpoints, the fallback file and the sampling table. It sends no\n"
        "record, so cannot see whether an agent that accepts connections reads them. What holds\n"
        "for one user may not for another: run it as the user of the application.\n"
        "Example: runuser -u www-data -- qvctl check\n"
        "Exit status: 0 records over any transport would be delivered, and kept while the agent\n"
        "is away; 1 not all of that; 2 wrong usage.");
    verb->callback([&status] { status = check() ? 0 : 1; });
}

}  // namespace Quorvel
