// An application built with the recorded declarations, to be run with a newer library and without
// an agent. Ends with 0 when the calls answer as ever and nothing is written behind the objects.

#include <string.h>

#include <iostream>

#include "libqvapi.hh"

namespace {

// Static, so that `behind` is zero before the constructor of `object` runs.
template <class Class>
struct Guarded {
    Class object;
    char behind[512];

    bool intact() const {
        const char zeros[sizeof(behind)] = {};
        return memcmp(behind, zeros, sizeof(behind)) == 0;
    }
};

bool holds(const char* what, bool condition) {
    if (!condition) {
        std::cerr << "abi consumer: failed: " << what << '\n';
    }
    return condition;
}

}  // namespace

int main() {
    using Quorvel::CLogger;
    std::string address = "10.0.0.1";
    std::string name = "consumer";
    static Guarded<CLogger> logger;
    static Guarded<CLogger> module;
    static Guarded<Quorvel::SocketClient> client;
    static Guarded<Quorvel::Sampling> sampling;
    bool good = true;
    good &= holds("application mode", logger.object.init(name) == 0);
    good &= holds("base log",
                  logger.object.write_baselog(5, 1, "%s=%d", "n", 1) == Quorvel::QV_ERR_CONNECT);
    good &= holds("error text", !logger.object.get_errmsg().empty());
    std::map<std::string, int> values = {{"count", 1}};
    good &= holds("statistics", logger.object.set_stat(true, 3, 60, 100) == 0 &&
                                    logger.object.write_statlogs("login", values, 1, 1) == 0 &&
                                    logger.object.get_logtype() == 3);
    good &= holds("module mode", module.object.init(7) == 0);
    good &=
        holds("module record", module.object.write_modulelog(1, 2, address, address, 0, 0, 3) == 0);
    good &= holds("client",
                  client.object.init(0, true) == 0 &&
                      client.object.sendWithoutRecv(&name[0], 8, true) == Quorvel::QV_ERR_CONNECT);
    sampling.object.init(name, 9777, 102800);
    good &= holds("rate", sampling.object.fetchSampling(5) == 1 && !sampling.object.needFilter(5));
    good &= holds("nothing behind the objects is written",
                  logger.intact() && module.intact() && client.intact() && sampling.intact());
    return good ? 0 : 1;
}
