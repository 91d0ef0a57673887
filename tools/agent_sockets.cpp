#include "agent_sockets.h"

#include <stdio.h>

#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "agent_address.h"

namespace Quorvel {
namespace {

const char kLoopback[] = "0100007F";
const char kMappedLoopback[] = "0000000000000000FFFF00000100007F";  // in an IPv6 socket

using Row = std::vector<std::string>;

/// Whether a row with more than `column` columns of one of the tables of sockets matches.
template <class Matches>
bool anyRow(std::initializer_list<const char*> tables, size_t column, const Matches& matches) {
    for (const char* const table : tables) {
        std::ifstream file(std::string("/proc/net/") + table);
        for (std::string line; std::getline(file, line);) {
            std::istringstream words(line);
            const Row row{std::istream_iterator<std::string>(words), {}};
            if (row.size() > column && matches(row)) {
                return true;
            }
        }
    }
    return false;
}

/// Whether `local` is the agent's port at one of the addresses.
bool isAgentPort(const std::string& local, std::initializer_list<std::string> addresses) {
    char port[sizeof(":FFFF")];
    snprintf(port, sizeof(port), ":%04X", unsigned{kAgentPort});
    return std::any_of(addresses.begin(), addresses.end(),
                       [&](const std::string& address) { return local == address + port; });
}

}  // namespace

bool isUdpServed() {
    return anyRow({"udp", "udp6"}, 1, [](const Row& row) {
        return isAgentPort(row[1], {"00000000", kLoopback, std::string(32, '0'), kMappedLoopback});
    });
}

// A connection has no inode before it is accepted.
bool hasUnaccepted(Transport transport) {
    if (transport == Transport::kUnix) {
        return anyRow({"unix"}, 7, [](const Row& row) {
            const bool isConnecting = row[5] == "02";
            return isConnecting && row[6] == "0" && row[7] == kAgentSocketPath;
        });
    }
    return anyRow({"tcp", "tcp6"}, 9, [](const Row& row) {
        const bool isEstablished = row[3] == "01";
        return isEstablished && row[9] == "0" && isAgentPort(row[1], {kLoopback, kMappedLoopback});
    });
}

}  // namespace Quorvel
