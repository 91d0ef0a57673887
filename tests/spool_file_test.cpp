#include "spool_file.h"

#include <sys/mman.h>

#include "request_bytes.h"
#include "test_agent.h"

namespace Quorvel {
namespace {

using Requests = std::vector<std::string>;

std::string spooled(const Requests& requests) {
    std::string bytes;
    for (const std::string& request : requests) {
        appendSpoolRecord(bytes, request);
    }
    return bytes;
}

/// The requests that the reader finds. What it skips must be the rest of the bytes.
Requests found(const std::string& bytes) {
    const int fd = memfd_create("spool", 0);
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    Requests requests;
    uint64_t skipped = 0;
    SpoolReader reader(fd);
    while (reader.next()) {
        requests.emplace_back(reader.request(0, reader.requestLength()));
        skipped += reader.skipped();
    }
    EXPECT_EQ(spooled(requests).size() + skipped + reader.skipped(), bytes.size());
    close(fd);
    return requests;
}

const std::string kInner = spooled({requestBytes("inner", "within")});

/// Of equal and of other lengths, two of them with records in the body, one in the long form.
const Requests kRequests = {
    requestBytes("app", "of equal length"),
    requestBytes("app", "of equal size.."),
    requestBytes("app", "a record " + kInner + std::string(200, '.')),
    requestBytes("", ""),
    requestBytes("app", "binary of equal", 127, 6),
    requestBytes("app", std::string(30800, 'x') + kInner + "end"),
    requestBytes("app", "of equal length"),
    requestBytes("app", "last"),
};

Requests without(size_t index) {
    Requests others = kRequests;
    others.erase(others.begin() + static_cast<ptrdiff_t>(index));
    return others;
}

/// The record at `index` as it is in the file.
std::string record(size_t index) { return spooled({kRequests[index]}); }

/// The file with `damaged` in the place of the record at `index`.
std::string fileWith(const std::string& damaged, size_t index) {
    std::string file;
    for (size_t i = 0; i < kRequests.size(); ++i) {
        file += i == index ? damaged : record(i);
    }
    return file;
}

/// The first bytes of a record: with its head, and some more.
size_t someLength(size_t index) { return std::min<size_t>(record(index).size(), 150); }

TEST(SpoolReader, FindsAllOtherRecordsWhereABitIsFlipped) {
    for (size_t i = 0; i < kRequests.size(); ++i) {
        for (size_t bit = 0; bit < 8 * someLength(i); ++bit) {
            std::string flipped = record(i);
            flipped[bit / 8] ^= static_cast<char>(1 << bit % 8);
            Requests whole = kRequests;  // where no field shows it
            whole[i] = flipped.substr(4);
            const Requests requests = found(fileWith(flipped, i));
            ASSERT_TRUE(requests == without(i) || requests == whole) << i << " bit " << bit;
        }
    }
}

TEST(SpoolReader, FindsAllOtherRecordsAroundACutOne) {
    for (size_t i = 0; i < kRequests.size(); ++i) {
        for (size_t kept = 0; kept < someLength(i); ++kept) {
            const std::string cut = record(i).substr(0, kept);
            const bool endsWithInner =
                kept > kInner.size() && cut.rfind(kInner) + kInner.size() == kept;
            ASSERT_TRUE(endsWithInner || found(fileWith(cut, i)) == without(i))
                << i << " cut to " << kept;
        }
    }
}

/// The head of a record without a name, of `size` bytes in all.
std::string longHead(size_t size) {
    const auto length = static_cast<uint32_t>(size - 4);
    std::string head = spooled({requestBytes("", std::string(40000, '.'))}).substr(0, kHeadSize);
    head.replace(0, 4, reinterpret_cast<const char*>(&length), 4);
    return head.replace(16, 4, bigEndian(length - 16, 4));
}

TEST(SpoolReader, TakesNoTimeThatGrowsWithTheSquareOfTheSize) {
    const std::string empty = spooled({requestBytes("", "")});
    const size_t count = kIsSanitized ? 2000 : 20000;
    const size_t end = 2 * count * kHeadSize + 50000;
    std::string file;
    while (file.size() < 2 * count * kHeadSize) {
        file += longHead(end - file.size()) + empty;
    }
    file += longHead(60000) + std::string(50000, '.');
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(found(file).size(), count);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
}

}  // namespace
}  // namespace Quorvel
