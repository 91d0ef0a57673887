// Merges many small samples into one record for each text. `qvctl listen` shows the records.

#include <qvapi_cpp.h>
#include <unistd.h>

#include <ctime>
#include <iostream>
#include <map>
#include <string>

namespace {

unsigned int now() { return static_cast<unsigned int>(time(nullptr)); }

}  // namespace

int main() {
    Quorvel::CLogger logger;
    // A batch is closed by the first call that finds it two seconds old, or 100 texts large.
    if (logger.init("example_statistics") != 0 || logger.set_stat(true, 3, 2, 100) != 0) {
        std::cerr << logger.get_errmsg() << '\n';
        return 1;
    }
    std::map<std::string, int> logins = {{"ok", 1}};
    std::map<std::string, int> latency = {{"ms", 0}};
    for (int i = 0; i < 1000; ++i) {
        latency["ms"] = i % 40;
        logger.write_statlogs("login", logins, Quorvel::QV_STAT_TYPE_COUNT, now());
        logger.write_statlogs("latency", latency, Quorvel::QV_STAT_TYPE_MAX, now());
    }
    std::cout << "1000 logins counted\n";

    // No timer closes a batch, and destroying a logger discards what was not written: a program
    // that ends makes one more call when the batch is old enough, and gives the thread its second.
    sleep(2);
    logger.write_statlogs("end", logins, Quorvel::QV_STAT_TYPE_COUNT, now());
    sleep(2);
    return 0;
}
