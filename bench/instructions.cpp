// instructions record|floor CALLS: makes CALLS raw-form base logs of 100 bytes on a logger without
// locking, or only the allocation and the send that each of them makes. For callgrind: the
// difference between the two is what a record costs in user space outside send and the allocator.
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "agent.h"
#include "qvapi_cpp.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    const bool record = std::strcmp(argv[1], "record") == 0;
    const int calls = std::atoi(argv[2]);
    const std::string name = "benchmark";
    const std::string body(100, 'x');
    const size_t length = 18 + name.size() + body.size();
    const bench::Agent agent;
    const int fd = bench::connectToAgent(2);
    Quorvel::CLogger logger(2, false);
    logger.init(name);
    for (int i = 0; i < calls; ++i) {
        if (record) {
            logger.write_baselog(body.data(), 100, 5, 0, 1400000000);
        } else {
            char* volatile request = new char[length];
            send(fd, request, length, MSG_NOSIGNAL);
            delete[] request;
        }
    }
    return 0;
}
