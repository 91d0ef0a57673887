// In a file of any bytes the records found are whole, and together with what was skipped they are
// the file.

#include "fuzzing.h"
#include "request_decoder.h"
#include "spool_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Quorvel;
    static const int fd = memfd_create("spool", MFD_CLOEXEC);
    require(ftruncate(fd, static_cast<off_t>(size)) == 0);
    require(pwrite(fd, data, size, 0) == static_cast<ssize_t>(size));
    SpoolReader reader(fd);
    uint64_t position = 0;
    while (reader.next()) {
        require(reader.begin() == position + reader.skipped() && reader.end() <= size);
        position = reader.end();
        RequestView request;
        std::string error;
        require(decodeRequest(reader.request(0, reader.requestLength()), request, error));
    }
    require(position + reader.skipped() == size);
    return 0;
}
