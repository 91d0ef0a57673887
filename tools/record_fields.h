#ifndef QUORVEL_RECORD_FIELDS_H
#define QUORVEL_RECORD_FIELDS_H

#include <nlohmann/json.hpp>

#include "request_decoder.h"

namespace Quorvel {

/// The fields of a body whose form is known: of a binary module record by their names, of a text of
/// key=value pairs joined by "&" by their keys, with the library's escapes undone; what a
/// statistics record is about stands under "data". Empty when the body has neither form, or a key
/// twice, or is not UTF-8.
nlohmann::ordered_json recordFields(const Request& request);

}  // namespace Quorvel

#endif  // QUORVEL_RECORD_FIELDS_H
