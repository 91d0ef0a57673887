#ifndef QUORVEL_FUZZING_H
#define QUORVEL_FUZZING_H

#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "output.h"

namespace Quorvel {

/// Ends the run with the input as its finding.
inline void require(bool condition) {
    if (!condition) {
        abort();
    }
}

/// What `print` writes to its Output.
template <typename Print>
std::string printed(const Print& print) {
    static const int fd = memfd_create("printed", MFD_CLOEXEC);
    static Output output(fd);
    print(output);
    output.flush();
    std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_CUR)), '\0');
    require(pread(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    lseek(fd, 0, SEEK_SET);
    return text;
}

/// Whether a terminal shows the text as lines and acts upon nothing in it.
inline bool isHarmless(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        return c == '\n' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F);
    });
}

}  // namespace Quorvel

#endif  // QUORVEL_FUZZING_H
