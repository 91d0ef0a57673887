#ifndef QVAPI_IPV4_ADDRESS_H
#define QVAPI_IPV4_ADDRESS_H

#include <netinet/in.h>

#include <string>

namespace Quorvel {

/// @return what inet_addr(3) makes of `text`; without its cost for four plain decimal numbers.
in_addr_t parseAddress(const std::string& text);

}  // namespace Quorvel

#endif  // QVAPI_IPV4_ADDRESS_H
