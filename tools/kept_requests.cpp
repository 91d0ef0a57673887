#include "kept_requests.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <stdexcept>

#include "spool_file.h"

namespace Quorvel {
namespace {

const size_t kFlushSize = 256 << 10;

}  // namespace

KeptRequests::KeptRequests(const std::string& path)
    : m_path(path), m_file(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666)) {
    if (m_file.get() < 0) {
        fail();
    }
}

void KeptRequests::add(std::string_view request) {
    appendSpoolRecord(m_records, request);
    if (m_records.size() >= kFlushSize) {
        flush();
    }
}

void KeptRequests::flush() {
    for (std::string_view rest = m_records; !rest.empty();) {
        const ssize_t written = write(m_file.get(), rest.data(), rest.size());
        if (written < 0 && errno != EINTR) {
            fail();
        }
        rest.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    }
    m_records.clear();
}

void KeptRequests::fail() const {
    throw std::runtime_error("cannot write to " + m_path + ": " + strerror(errno));
}

}  // namespace Quorvel
