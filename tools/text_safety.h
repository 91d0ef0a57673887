#ifndef QUORVEL_TEXT_SAFETY_H
#define QUORVEL_TEXT_SAFETY_H

#include <string>
#include <string_view>

#include "output.h"

namespace Quorvel {

bool isUtf8(std::string_view bytes);

/// `text` with everything that a terminal could take for more than a character, or that shows as
/// nothing or moves other characters, written as \xNN.
std::string escapeForTerminal(std::string_view text);
void appendForTerminal(Output& output, std::string_view text);

}  // namespace Quorvel

#endif  // QUORVEL_TEXT_SAFETY_H
