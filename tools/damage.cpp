#include "damage.h"

namespace Quorvel {
namespace {

const uint64_t kDescribedPlaces = 5;

}  // namespace

void Damage::add(uint64_t offset, uint64_t length) {
    if (length == 0) {
        return;
    }
    m_bytes += length;
    if (++m_places <= kDescribedPlaces) {
        m_firstPlaces += (m_places == 1 ? "" : ", ") + std::to_string(length) + " at byte " +
                         std::to_string(offset);
    }
}

std::string Damage::description() const {
    const std::string more =
        m_places <= kDescribedPlaces
            ? ""
            : " and " + std::to_string(m_places - kDescribedPlaces) + " more places";
    return std::to_string(m_bytes) + " bytes that are no record: " + m_firstPlaces + more;
}

}  // namespace Quorvel
