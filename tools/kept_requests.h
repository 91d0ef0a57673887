#ifndef QUORVEL_KEPT_REQUESTS_H
#define QUORVEL_KEPT_REQUESTS_H

#include <string>
#include <string_view>

#include "descriptor.h"

namespace Quorvel {

/// Appends requests to a file in the fallback file's format. Throws when it cannot.
class KeptRequests {
 public:
    explicit KeptRequests(const std::string& path);

    void add(std::string_view request);
    void flush();

 private:
    [[noreturn]] void fail() const;

    const std::string m_path;
    const Descriptor m_file;
    std::string m_records;
};

}  // namespace Quorvel

#endif  // QUORVEL_KEPT_REQUESTS_H
