#ifndef QUORVEL_RECORD_LINE_H
#define QUORVEL_RECORD_LINE_H

#include <string>

#include "request_decoder.h"
#include "transport.h"

namespace Quorvel {

/// `text` with everything that a terminal could take for more than a character written as \xNN.
std::string escapeForTerminal(const std::string& text);

/// One line for a person at a terminal.
std::string readableLine(Transport transport, const Request& request);

/// One line with a JSON object. A name or body that is not UTF-8 is in base64, with a second key
/// "applicationEncoding" or "bodyEncoding" that says so; a body of a known form also has its fields
/// under "fields".
/// @param onlyAscii writes all other characters as \uNNNN, which no terminal acts upon.
std::string jsonLine(Transport transport, const Request& request, bool onlyAscii);

}  // namespace Quorvel

#endif  // QUORVEL_RECORD_LINE_H
