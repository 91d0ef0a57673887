#include "deliveries.h"

#include <qvapi_errno.h>

#include <iostream>

#include "host_paths.h"
#include "request_format.h"

namespace Quorvel {

void Deliveries::add(int code, const std::string& error, size_t textLength) {
    ++m_records;
    m_bytes += textLength;
    if (code == QV_ERR_OK) {
        ++m_accepted;
    } else if (code != QV_ERR_CONNECT && code != QV_ERR_WRITE && code != QV_ERR_FALLBACK_FULL) {
        std::cerr << "qvctl: record " << m_records << " lost with code " << code << ": " << error
                  << '\n';
    } else if (code != QV_ERR_FALLBACK_FULL && m_watch.tookRequest(kPrefixLength + textLength)) {
        ++m_kept;
    } else {
        ++m_gone;
    }
}

void Deliveries::report() const {
    std::cout << "accepted: " << m_accepted << "\nturned over to the fallback file: " << m_kept
              << "\nlost: " << m_records - m_accepted - m_kept << '\n';
    if (m_kept > 0) {
        std::cout << kFallbackFile << " grew by the " << m_watch.growth() << " bytes turned over\n";
    }
    if (m_gone > 0) {
        std::cout << kFallbackFile << " took none of " << m_gone
                  << " records turned over: " << FallbackWatch::obstacle() << '\n';
    }
}

}  // namespace Quorvel
