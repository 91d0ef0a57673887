// make_seeds DIRECTORY: writes a corpus for each fuzz target, made of what the library sends to an
// agent over UDP and what the tools write. Runs inside scripts/world.
#include <qvapi_cpp.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "agent_address.h"
#include "descriptor.h"
#include "request_decoder.h"
#include "sampling_table.h"
#include "spool_file.h"

namespace Quorvel {
namespace {

const size_t kMaxBodySeed = 4096;  // longer inputs would be slow to no end

void check(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

std::vector<std::string> makeRequests() {
    const Descriptor agent(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in loopback = agentLoopbackAddress();
    check(bind(agent.get(), reinterpret_cast<const sockaddr*>(&loopback), sizeof(loopback)) == 0,
          "cannot bind");
    CLogger application(2), module(2);
    check(application.init("application") == 0 && module.init(7) == 0, "cannot begin");
    const std::string bytes("\0\x1B[2J\xFF\xC2\x9B", 8);
    application.write_baselog(0, "a line", false, 1400000000);
    application.write_baselog(110, "caf\xC3\xA9&ok=1&latency=39&name=a%26b", false, 1);
    application.write_baselog(bytes.data(), static_cast<unsigned int>(bytes.size()), 5, 1, 2);
    application.write_baselog(7, std::string(40000, 'x'), false, 3);
    std::string address = "10.0.0.1";
    module.write_modulelog(8, 9, address, address, 0, 5, 30);
    module.write_modulelog_forIM(8, 9, address, address, 0, 5, 30);
    std::vector<std::string> requests;
    std::string request(65536, '\0');
    for (ssize_t length;
         (length = recv(agent.get(), request.data(), request.size(), MSG_DONTWAIT)) > 0;) {
        requests.emplace_back(request, 0, static_cast<size_t>(length));
    }
    check(requests.size() == 6, "a request was lost");
    return requests;
}

std::vector<std::string> makeTables() {
    std::vector<AppItem> table(kSamplingSlots);
    std::vector<std::string> tables;
    for (const char* const name : {"application", "caf\xC3\xA9", "\x1B[2J\xFF"}) {
        setRates(table.data(), name, {5, 9}, 10);
        tables.emplace_back(reinterpret_cast<const char*>(table.data()),
                            usedSlots(table.data()).size() * sizeof(AppItem));
    }
    return tables;
}

void write(const std::filesystem::path& directory, const std::vector<std::string>& seeds) {
    std::filesystem::create_directories(directory);
    for (size_t i = 0; i < seeds.size(); ++i) {
        std::ofstream file(directory / std::to_string(i), std::ios::binary);
        check(static_cast<bool>(file << seeds[i] << std::flush), "cannot write a seed");
    }
}

}  // namespace
}  // namespace Quorvel

int main(int argc, char** argv) {
    using namespace Quorvel;
    const std::filesystem::path directory = argc == 2 ? argv[1] : ".";
    const std::vector<std::string> requests = makeRequests();
    std::vector<std::string> streams;
    std::vector<std::string> bodies;
    std::vector<std::string> spools{""};
    for (const std::string& bytes : requests) {
        RequestView request;
        std::string error;
        check(decodeRequest(bytes, request, error), error.c_str());
        const bool isText = request.command == kTextCommand;
        streams.push_back('\x10' + bytes);
        if (request.body.size() <= kMaxBodySeed) {
            bodies.push_back((isText ? '\0' : '\1') + std::string(request.body));
        }
        appendSpoolRecord(spools.emplace_back(spools.back()), bytes);
    }
    write(directory / "request_decoder_fuzz", streams);
    write(directory / "record_fields_fuzz", bodies);
    write(directory / "spool_reader_fuzz", spools);
    write(directory / "rates_view_fuzz", makeTables());
    return 0;
}
