#include "replay_queue.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "stop_signals.h"

namespace Quorvel {
namespace {

// Far more than an application takes from looking up the file's name to having it open.
const timespec kOpeningTime = {0, 100000000};
const timespec kWriterInterval = {0, 20000000};
const int kPatience = 50;        // of these intervals
const int kProgressDigits = 20;  // of the largest offset

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + strerror(errno));
}

[[noreturn]] void failToWrite(const std::string& path) {
    const bool isFull = errno == ENOSPC || errno == EDQUOT;
    throw std::runtime_error("cannot write to " + path + ": " + strerror(errno) +
                             (isFull ? "; make room on its disk first" : ""));
}

/// Opens `path` if a regular file is there, not following a link nor waiting; -1 if nothing is.
Descriptor openRegular(const std::string& path, int flags) {
    Descriptor fd(open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    struct stat status {};
    if (fd.get() < 0 && errno == ENOENT) {
        return fd;
    }
    if (fd.get() < 0 && errno == ELOOP) {
        throw std::runtime_error(path + " is a symbolic link");
    }
    if (fd.get() < 0) {
        fail("cannot open " + path);
    }
    if (fstat(fd.get(), &status) == 0 && !S_ISREG(status.st_mode)) {
        throw std::runtime_error(path + " is no regular file");
    }
    return fd;
}

/// Removes a file that may be gone already.
void removeIfThere(const std::string& path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        fail("cannot remove " + path);
    }
}

uint64_t fileSize(int fd) {
    struct stat status {};
    fstat(fd, &status);
    return static_cast<uint64_t>(status.st_size);
}

std::string workingName(const std::string& file) { return file + ".replay"; }
std::string damagedName(const std::string& file) { return file + ".damaged"; }
std::string progressName(const std::string& file) { return file + ".progress"; }

/// @return the progress of the file at work; 0 where none was stored, or that of another file.
uint64_t readProgress(int progressFd, int workingFd) {
    char digits[kProgressDigits + 1] = {};
    const bool isThere = pread(progressFd, digits, kProgressDigits, 0) == kProgressDigits;
    const uint64_t progress = isThere ? strtoull(digits, nullptr, 10) : 0;
    return progress > fileSize(workingFd) ? 0 : progress;
}

}  // namespace

std::vector<ReplayQueue::LeftOver> ReplayQueue::leftOvers(const std::string& file) {
    std::vector<LeftOver> found = {
        {workingName(file), 0, "of a replay that is at work or was ended",
         "\"qvctl spool replay\" goes on with it"},
        {damagedName(file), 0, "which a replay found to be no records",
         "remove it when it is of no more use"},
    };
    const auto isMissing = [](LeftOver& left) {
        struct stat status {};
        const bool isThere = stat(left.path.c_str(), &status) == 0;
        left.size = static_cast<uint64_t>(status.st_size);
        return !isThere;
    };
    found.erase(std::remove_if(found.begin(), found.end(), isMissing), found.end());
    return found;
}

std::vector<ReplayQueue::Part> ReplayQueue::parts(const std::string& file) {
    std::vector<Part> parts;
    if (Descriptor working = openRegular(workingName(file), O_RDONLY); working.get() >= 0) {
        const Descriptor progressFd = openRegular(progressName(file), O_RDONLY);
        const uint64_t progress = readProgress(progressFd.get(), working.get());
        parts.push_back({workingName(file), std::move(working), progress});
    }
    if (Descriptor fd = openRegular(file, O_RDONLY); fd.get() >= 0) {
        parts.push_back({file, std::move(fd), 0});
    }
    return parts;
}

ReplayQueue::ReplayQueue(const std::string& file, std::function<void()> waits)
    : m_file(file),
      m_waits(std::move(waits)),
      m_workingFile(workingName(file)),
      m_progressFile(progressName(file)),
      m_damagedFile(damagedName(file)) {
    const std::string directory = std::filesystem::absolute(file).parent_path();
    m_directory = Descriptor(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (m_directory.get() < 0) {
        fail("cannot open " + directory);
    }
    if (flock(m_directory.get(), LOCK_EX | LOCK_NB) != 0) {
        throw std::runtime_error("another process has locked " + directory +
                                 ": a replay is at work");
    }
    signal(SIGIO, SIG_IGN);  // which a process that opens a leased file sends
}

bool ReplayQueue::takeFile() {
    m_working = openRegular(m_workingFile, O_RDONLY);
    if (m_working.get() < 0 && !moveAside()) {
        return false;
    }
    nanosleep(&kOpeningTime, nullptr);
    if (!awaitWriters()) {
        return false;
    }
    m_progressFd = openRegular(m_progressFile, O_RDWR | O_CREAT);
    // Stored before anything is sent: with no room for it, every replay would send the same again.
    setProgress(readProgress(m_progressFd.get(), m_working.get()));
    return true;
}

uint64_t ReplayQueue::size() const { return fileSize(m_working.get()); }

void ReplayQueue::setProgress(uint64_t progress) {
    char digits[kProgressDigits + sizeof("\n")];
    const int length =
        snprintf(digits, sizeof(digits), "%0*" PRIu64 "\n", kProgressDigits, progress);
    if (pwrite(m_progressFd.get(), digits, static_cast<size_t>(length), 0) != length) {
        failToWrite(m_progressFile);
    }
    m_progress = progress;
}

void ReplayQueue::keepDamaged(std::string_view bytes) {
    const Descriptor fd = openRegular(m_damagedFile, O_WRONLY | O_APPEND | O_CREAT);
    while (!bytes.empty()) {
        const ssize_t written = write(fd.get(), bytes.data(), bytes.size());
        if (written < 0) {
            failToWrite(m_damagedFile);
        }
        bytes.remove_prefix(static_cast<size_t>(written));
    }
}

bool ReplayQueue::removeFile(uint64_t end) {
    if (!awaitWriters() || size() > end) {
        return false;
    }
    removeIfThere(m_workingFile);  // first: its progress keeps it from being replayed again
    removeIfThere(m_progressFile);
    return true;
}

bool ReplayQueue::moveAside() {
    const Descriptor fd = openRegular(m_file, O_RDONLY);
    if (fd.get() < 0) {
        return false;
    }
    struct stat status {};
    fstat(fd.get(), &status);
    if (geteuid() != 0 && geteuid() != status.st_uid) {
        throw std::runtime_error(
            m_file + " belongs to the user " + std::to_string(status.st_uid) +
            ": only that one and root can tell whether it is still written to");
    }
    removeIfThere(m_progressFile);  // of a file that is gone
    if (renameat2(AT_FDCWD, m_file.c_str(), AT_FDCWD, m_workingFile.c_str(), RENAME_NOREPLACE) !=
        0) {
        fail("cannot rename " + m_file + " to " + m_workingFile);
    }
    m_working = openRegular(m_workingFile, O_RDONLY);
    return m_working.get() >= 0;
}

bool ReplayQueue::awaitWriters() const {
    int intervals = 0;
    while (fcntl(m_working.get(), F_SETLEASE, F_RDLCK) != 0) {
        if (errno == EACCES && fchown(m_working.get(), geteuid(), -1) == 0) {
            continue;  // the owner may have a lease without a capability
        }
        if (errno != EAGAIN) {
            fail("cannot tell whether " + m_workingFile + " is still written to");
        }
        if (stopRequested()) {
            return false;
        }
        if (++intervals == kPatience) {
            m_waits();
        }
        nanosleep(&kWriterInterval, nullptr);
    }
    fcntl(m_working.get(), F_SETLEASE, F_UNLCK);
    return true;
}

}  // namespace Quorvel
