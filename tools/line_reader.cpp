#include "line_reader.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

#include "stop_signals.h"

namespace Quorvel {
namespace {

const size_t kReadSize = 64 << 10;

}  // namespace

bool LineReader::next(std::string_view& line) {
    size_t end = m_text.find('\n', m_begin);
    while (end == std::string::npos) {
        m_text.erase(0, m_begin);
        m_offset += m_begin;
        m_begin = 0;
        const size_t searched = m_text.size();
        if (!readMore()) {
            line = m_text;
            m_begin = m_text.size();
            return !line.empty();
        }
        end = m_text.find('\n', searched);
    }
    line = std::string_view(m_text).substr(m_begin, end - m_begin);
    m_begin = end + 1;
    return true;
}

double LineReader::part() const {
    struct stat status {};
    const bool isKnown = fstat(STDIN_FILENO, &status) == 0 && status.st_size > 0;
    return isKnown ? static_cast<double>(m_offset + m_begin) / static_cast<double>(status.st_size)
                   : 0;
}

bool LineReader::readMore() {
    const size_t size = m_text.size();
    m_text.resize(size + kReadSize);
    ssize_t length = 0;
    do {
        length = stopRequested() ? 0 : read(STDIN_FILENO, &m_text[size], kReadSize);
    } while (length < 0 && errno == EINTR);
    if (length < 0) {
        throw std::runtime_error(std::string("cannot read standard input: ") + strerror(errno));
    }
    m_text.resize(size + static_cast<size_t>(length));
    return length > 0;
}

}  // namespace Quorvel
