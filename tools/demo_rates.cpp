// demo_rates APPLICATION TYPE RATE: publishes one sampling rate the way the agent does, in a fresh
// table with its marker file. For ./dev demo, in a world of its own.
#include <sys/shm.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "qvapi_sampling.h"

int main(int argc, char** argv) {
    const int type = argc == 4 ? std::atoi(argv[2]) : -1;
    const int rate = argc == 4 ? std::atoi(argv[3]) : -1;
    if (type < 0 || type > 127 || rate < 0 || rate > 255) {
        std::fputs("usage: demo_rates APPLICATION TYPE(0-127) RATE(0-255)\n", stderr);
        return 2;
    }
    const int id = shmget(9777, 100 * sizeof(Quorvel::AppItem), IPC_CREAT | 0666);
    void* const table = id < 0 ? nullptr : shmat(id, nullptr, 0);
    if (table == nullptr || table == reinterpret_cast<void*>(-1)) {
        std::perror("demo_rates: shared memory");
        return 1;
    }
    auto& slot = *static_cast<Quorvel::AppItem*>(table);
    slot.isUsed = 1;
    std::strncpy(slot.appname, argv[1], sizeof(slot.appname) - 1);
    slot.logTypeItems[type].sampling = static_cast<uint8_t>(rate);
    std::filesystem::create_directories("/data/qvagent");
    return std::ofstream("/data/qvagent/qv_shm_sampling") ? 0 : 1;
}
