#include "request_decoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "request_bytes.h"

static size_t largestAllocation = 0;

void* operator new(size_t size) {
    largestAllocation = std::max(largestAllocation, size);
    return malloc(size);
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }

namespace {

using Quorvel::Request;
using Status = Quorvel::RequestDecoder::Status;

std::string describe(const Request& request) {
    return std::to_string(request.command) + '/' + std::to_string(request.logType) + '/' +
           std::to_string(request.timestamp) + '/' + request.application + '/' + request.body;
}

/// What a stream gives when it is fed in pieces of the sizes that `nextSize` names, and how it
/// ends.
template <typename NextSize>
std::vector<std::string> decode(const std::string& stream, NextSize nextSize) {
    Quorvel::RequestDecoder decoder;
    Request request;
    std::vector<std::string> results;
    for (size_t begin = 0, size; begin < stream.size(); begin += size) {
        size = std::min<size_t>(nextSize(), stream.size() - begin);
        decoder.feed(stream.data() + begin, size);
        while (decoder.next(request) == Status::kRequest) {
            results.push_back(describe(request));
        }
    }
    const std::string rest = std::to_string(decoder.pending()) + " bytes pending";
    results.push_back(decoder.error().empty() ? rest : decoder.error());
    return results;
}

TEST(RequestDecoder, DecodesEveryFormHoweverTheStreamIsSplit) {
    const std::string body(30721 - 5, 'x');
    const std::string stream = headerBytes(3, 0x85, 10, 2, 1, 1400000000, 0xFFFFFFFF) +
                               std::string("\0\3apphello", 10) + requestBytes("", "", 0, 3, 0) +
                               requestBytes("binary", std::string("\0\xFF", 2), 127, 6, ~0u) +
                               headerBytes(3, 0x80, 0xFFFF, 2, 9, 1, 30721) +
                               std::string("\0\3app", 5) + body +
                               requestBytes("", "").substr(0, 17);
    const std::vector<std::string> expected{"3/5/1400000000/app/hello", "3/0/0//",
                                            std::string("6/127/4294967295/binary/\0\xFF", 26),
                                            "3/0/1/app/" + body, "17 bytes pending"};
    for (size_t size = 1; size < 100; ++size) {
        EXPECT_EQ(decode(stream, [size] { return size; }), expected) << size;
    }
    EXPECT_EQ(decode(stream, [&stream] { return stream.size(); }), expected);
}

TEST(RequestDecoder, SeesAMalformedRequestAtTheFirstByteThatTellsAndStaysMalformed) {
    const std::pair<std::string, const char*> rows[] = {
        // as many bytes as tell
        {"G", "command 71 is neither 3 nor 6"},
        {"\6\x7F", "log type byte 127 lacks bit 7"},
        {headerBytes(3, 0x80, 5, 3, 1, 0, 0).substr(0, 6), "version 3 is not 2"},
        {headerBytes(3, 0x80, 5, 2, 8, 0, 0).substr(0, 8), "flag 8 is neither 1 nor 9"},
        {headerBytes(3, 0x80, 5, 2, 9, 0, (64 << 20) + 1),
         "announced body of 67108865 bytes is longer than 67108864"},
        {headerBytes(3, 0x80, 5, 2, 9, 0, ~0u),
         "announced body of 4294967295 bytes is longer than 67108864"},
        {headerBytes(3, 0x80, 1, 2, 1, 0, 9), "body of 1 bytes has no room for the name's length"},
        {headerBytes(3, 0x80, 5, 2, 1, 0, 9) + bigEndian(4, 2),
         "body of 5 bytes has no room for a name of 4"},
    };
    const std::string good = requestBytes("app", "x");
    for (const auto& [bytes, error] : rows) {
        const std::string early = bytes.substr(0, bytes.size() - 1);
        EXPECT_EQ(decode(early, [] { return 1; }).back(),
                  std::to_string(early.size()) + " bytes pending");
        const std::vector<std::string> malformed{"3/0/1400000000/app/x", error};
        EXPECT_EQ(decode(good + bytes, [] { return 1; }), malformed);
        EXPECT_EQ(decode(good + bytes + good, [] { return 1; }), malformed);
    }
}

TEST(RequestDecoder, DecodesDamagedStreamsTheSameWayHoweverTheyAreSplit) {
    std::mt19937 random(1);
    for (int round = 0; round < 2000; ++round) {
        std::string stream;
        for (int i = 0; i < 8; ++i) {
            stream += requestBytes(std::string(random() % 9, 'n'), std::string(random() % 99, 'b'));
        }
        for (int i = 0; i < round % 4; ++i) {
            stream[random() % stream.size()] = static_cast<char>(random());
        }
        EXPECT_EQ(decode(stream, [&random] { return 1 + random() % 64; }),
                  decode(stream, [&stream] { return stream.size(); }));
    }
}

TEST(RequestDecoder, HoldsNoMemoryForBytesAnnouncedOrAlreadyDecoded) {
    std::string stream;
    while (stream.size() < 16 << 20) {
        stream += requestBytes("app", std::string(1000, 'x'));
    }
    stream += headerBytes(3, 0x80, 0, 2, 9, 0, 64 << 20);
    const std::string malformed = "G" + stream;
    largestAllocation = 0;
    EXPECT_EQ(decode(stream, [] { return 999; }).back(), "16 bytes pending");
    EXPECT_EQ(decode(malformed, [] { return 999; }).back(), "command 71 is neither 3 nor 6");
    EXPECT_LT(largestAllocation, 2u << 20);
}

TEST(RequestDecoder, TakesExactlyOneWholeRequestWhereOneIsExpected) {
    const std::string bytes = requestBytes("app", "hello", 5) + "x";
    for (size_t length = 0; length <= bytes.size(); ++length) {
        Request request{};
        std::string error;
        const bool isOne = length == bytes.size() - 1;
        EXPECT_EQ(decodeRequest(bytes.data(), length, request, error), isOne);
        EXPECT_EQ(error, isOne                    ? ""
                         : length == bytes.size() ? "1 bytes follow the request"
                                                  : "ended inside a request");
        EXPECT_EQ(describe(request), isOne ? "3/5/1400000000/app/hello" : "0/0/0//");
    }
}

}  // namespace
