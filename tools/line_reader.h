#ifndef QUORVEL_LINE_READER_H
#define QUORVEL_LINE_READER_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

namespace Quorvel {

/// Reads lines from standard input until its end or a stop is requested, which the streams of the
/// standard library would not notice. What was read by then is still handed out.
class LineReader {
 public:
    /// @param line without its end; good until the next call.
    /// @return whether there was one. Throws when standard input cannot be read.
    bool next(std::string_view& line);

    /// How much of standard input was handed out, 0 to 1; 0 when its size is not known.
    double part() const;

 private:
    bool readMore();

    std::string m_text;
    uint64_t m_offset = 0;  // of the text in standard input
    size_t m_begin = 0;     // of the next line in the text
};

}  // namespace Quorvel

#endif  // QUORVEL_LINE_READER_H
