#include "fallback_watch.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host_paths.h"

namespace Quorvel {
namespace {

uint64_t fileSize() {
    struct stat status {};
    return stat(kFallbackFile, &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

std::string inTheWay(const char* path) { return std::string(path) + ": " + strerror(errno); }

}  // namespace

FallbackWatch::FallbackWatch() : m_size(fileSize()) {}

bool FallbackWatch::tookRequest(size_t length) {
    const uint64_t before = m_size;
    m_size = fileSize();
    // A file that shrank was moved away or emptied, and began anew.
    const uint64_t grown = m_size < before ? m_size : m_size - before;
    const uint64_t record = sizeof(uint32_t) + length;
    m_growth += grown < record ? 0 : record;
    return grown >= record;
}

std::string FallbackWatch::obstacle() {
    struct stat status {};
    if (stat(kFallbackDirectory, &status) != 0) {
        return inTheWay(kFallbackDirectory) + " (qvctl setup makes the directory)";
    }
    if (stat(kFallbackFile, &status) != 0) {
        return access(kFallbackDirectory, W_OK | X_OK) != 0 ? inTheWay(kFallbackDirectory)
                                                            : "the file is not there";
    }
    if (!S_ISREG(status.st_mode)) {
        return std::string(kFallbackFile) + " is not a file";
    }
    if (static_cast<uint64_t>(status.st_size) > kMaxFallbackSize) {
        return "the file is full";
    }
    return access(kFallbackFile, W_OK) != 0 ? inTheWay(kFallbackFile)
                                            : "the file did not grow; is its disk full?";
}

}  // namespace Quorvel
