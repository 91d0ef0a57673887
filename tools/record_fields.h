#ifndef QUORVEL_RECORD_FIELDS_H
#define QUORVEL_RECORD_FIELDS_H

#include <stddef.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorvel {

/// More fields than this are not split: no application means them.
const size_t kMaxFields = 65536;

/// The fields of a text of key=value pairs joined by "&", with the library's escapes undone. What a
/// statistics record is about stands in front, without a key: its key is "data".
class RecordFields {
 public:
    /// @return false when the text has not that form, a key twice or more than kMaxFields fields.
    bool split(std::string_view text);

    /// The keys and values of the text that was split last, while it and this object last.
    const std::vector<std::pair<std::string_view, std::string_view>>& get() const {
        return m_fields;
    }

 private:
    std::string_view unescape(std::string_view text);
    bool hasKeyTwice();

    std::string m_unescaped;  // what the texts that held escapes became
    std::vector<std::pair<std::string_view, std::string_view>> m_fields;
    std::vector<std::string_view> m_keys;
};

}  // namespace Quorvel

#endif  // QUORVEL_RECORD_FIELDS_H
