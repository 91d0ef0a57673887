#include "damage.h"

namespace Quorvel {
namespace {

const size_t kDescribedPlaces = 5;

}  // namespace

void Damage::add(uint64_t offset, uint64_t length) {
    if (length == 0) {
        return;
    }
    m_bytes += length;
    ++m_places;
    if (m_firstPlaces.size() < kDescribedPlaces) {
        m_firstPlaces.emplace_back(offset, length);
    }
}

void Damage::add(const Damage& behind) {
    m_bytes += behind.m_bytes;
    m_places += behind.m_places;
    for (const auto& place : behind.m_firstPlaces) {
        if (m_firstPlaces.size() < kDescribedPlaces) {
            m_firstPlaces.push_back(place);
        }
    }
}

std::string Damage::description() const {
    std::string text = std::to_string(m_bytes) + " bytes that are no record";
    const char* separator = ": ";
    for (const auto& [offset, length] : m_firstPlaces) {
        text += separator + std::to_string(length) + " at byte " + std::to_string(offset);
        separator = ", ";
    }
    const uint64_t more = m_places - m_firstPlaces.size();
    return more == 0 ? text : text + " and " + std::to_string(more) + " more places";
}

}  // namespace Quorvel
