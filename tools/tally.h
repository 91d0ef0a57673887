#ifndef QUORVEL_TALLY_H
#define QUORVEL_TALLY_H

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "request_decoder.h"

namespace Quorvel {

/// Counts records by application and log type, in bounded memory: it keeps the largest, shortens
/// long names and counts all others together.
class Tally {
 public:
    Tally() { m_recent.fill(m_amounts.end()); }
    Tally(const Tally&) = delete;
    Tally& operator=(const Tally&) = delete;

    struct Amount {
        uint64_t records = 0;
        uint64_t bytes = 0;  ///< of the bodies
        void add(const Amount& other);
    };
    using Key = std::pair<std::string, uint8_t>;
    struct Row {
        const Key* key;
        Amount amount;
    };

    void add(const RequestView& request) {
        add(request.application, request.logType, request.body.size());
    }
    /// @param bytes of the record's body.
    void add(std::string_view application, uint8_t logType, uint64_t bytes);
    void add(const Tally& other);

    const Amount& total() const { return m_total; }
    const Amount& others() const { return m_others; }
    /// All that are counted on their own, the largest first.
    std::vector<Row> rows() const;

 private:
    struct Before {
        using is_transparent = void;
        template <class Left, class Right>
        bool operator()(const Left& left, const Right& right) const {
            return std::pair<std::string_view, uint8_t>(left) <
                   std::pair<std::string_view, uint8_t>(right);
        }
    };
    using Amounts = std::map<Key, Amount, Before>;

    Amounts::iterator entry(std::string_view name, uint8_t logType);
    void dropSmallest();

    Amounts m_amounts;
    // Most records have the name and type of one just before; a hash tells its place here.
    std::array<Amounts::iterator, 64> m_recent;
    Amount m_total;
    Amount m_others;
};

}  // namespace Quorvel

#endif  // QUORVEL_TALLY_H
