#ifndef QUORVEL_FALLBACK_RECORDS_H
#define QUORVEL_FALLBACK_RECORDS_H

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "request_decoder.h"

namespace Quorvel {

/// The records of the fallback file, all of which must be whole.
inline std::vector<Request> fallbackRecords() {
    std::ifstream file("/data/qvagent/msgdat.dat", std::ios::binary);
    std::vector<Request> records;
    for (uint32_t length; file.read(reinterpret_cast<char*>(&length), sizeof(length));) {
        std::string request(length, 0), error = "the file ends inside a record";
        records.emplace_back();
        EXPECT_TRUE(file.read(request.data(), length) &&
                    decodeRequest(request.data(), length, records.back(), error))
            << error;
    }
    EXPECT_EQ(file.gcount(), 0);
    return records;
}

}  // namespace Quorvel

#endif  // QUORVEL_FALLBACK_RECORDS_H
