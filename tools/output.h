#ifndef QUORVEL_OUTPUT_H
#define QUORVEL_OUTPUT_H

#include <stddef.h>
#include <unistd.h>

#include <memory>
#include <string_view>

namespace Quorvel {

/// Gives each standard stream that the program was started without a stand-in that can be neither
/// read nor written, so that no other file takes its number.
/// @return false when that is standard output.
bool openStandardStreams();

/// What a verb prints in bulk, written when the buffer is full and by flush(). (What std::cout is
/// for: the rest; main sees to its errors.) Writing throws std::runtime_error when standard output
/// is closed or full, and when nobody reads it while stopIsOverdue().
class Output {
 public:
    explicit Output(int fd = STDOUT_FILENO) : m_fd(fd), m_buffer(new char[kCapacity]) {}

    void put(char c) {
        if (m_size == kCapacity) {
            flush();
        }
        m_buffer[m_size++] = c;
    }
    void append(std::string_view text);
    void flush();

 private:
    static const size_t kCapacity = 256 << 10;

    const int m_fd;
    const std::unique_ptr<char[]> m_buffer;
    size_t m_size = 0;
};

}  // namespace Quorvel

#endif  // QUORVEL_OUTPUT_H
