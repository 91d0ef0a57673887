#ifndef QUORVEL_RECORD_PRINTER_H
#define QUORVEL_RECORD_PRINTER_H

#include <memory>
#include <optional>

#include "output.h"
#include "request_decoder.h"
#include "transport.h"

namespace Quorvel {

/// Prints records, a line each, in time linear in the record and constant space.
class RecordPrinter {
 public:
    virtual ~RecordPrinter() = default;

    /// @param transport how the record arrived, if it did.
    virtual void print(const RequestView& request, std::optional<Transport> transport,
                       Output& output) = 0;
};

enum class RecordStyle {
    kReadable,   ///< a line for a person at a terminal
    kColoured,   ///< the same with colours
    kJson,       ///< a line with a JSON object
    kAsciiJson,  ///< the same with all other characters as \uNNNN, which no terminal acts upon
};

/// The style for standard output: JSON if asked for or if it is no terminal; otherwise readable, in
/// colours unless NO_COLOR is set (no-color.org).
RecordStyle recordStyle(bool json);

/// A name or body that is not UTF-8 stands in a JSON object in base64, with a second key
/// "applicationEncoding" or "bodyEncoding" that says so. A body of a known form also has its fields
/// under "fields": those of a binary module record by their names, those of a text as RecordFields
/// splits it.
std::unique_ptr<RecordPrinter> makeRecordPrinter(RecordStyle style);

}  // namespace Quorvel

#endif  // QUORVEL_RECORD_PRINTER_H
