#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "qvapi_cpp.h"
#include "qvapi_sampling.h"
#include "socket_client.h"
#include "test_agent.h"

namespace Quorvel {
namespace {

static_assert(sizeof(CLogger) == 424, "applications keep loggers on their stacks");
static_assert(sizeof(SocketClient) == 304, "part of the binary interface");
static_assert(sizeof(Sampling) == 96, "part of the binary interface");

/// How many bytes of its stack a thread uses, its thread-local storage included.
template <void (*Operation)(int8_t)>
size_t stackUse(int8_t transport) {
    std::vector<char> stack(1 << 18, '\x5a');
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack.data(), stack.size());
    const auto run = [](void* argument) -> void* {
        Operation(*static_cast<int8_t*>(argument));
        return nullptr;
    };
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, &attributes, run, &transport), 0);
    pthread_join(thread, nullptr);
    const auto untouched = [](char byte) { return byte == '\x5a'; };
    return static_cast<size_t>(stack.end() -
                               std::find_if_not(stack.begin(), stack.end(), untouched));
}

void useEveryOperation(int8_t transport) {
    std::string name = "stack";
    std::map<std::string, int> values = {{"value", 1}};
    CLogger logger;
    logger.set_socktype(transport);
    logger.set_no_sample(1);
    logger.set_sample(1);
    EXPECT_EQ(logger.init(name), 0);
    logger.write_baselog("raw", 3, 1, 0, 1);
    logger.write_baselog(LT_NORMAL, std::string(40000, 'x'), false, 1);
    EXPECT_EQ(logger.set_stat(true, 1, 0, 1), 0);
    logger.write_statlogs(name, values, QV_STAT_TYPE_SUM, 1);
    logger.write_statlogs(name, values, QV_STAT_TYPE_SUM, 2);
    char* request = nullptr;
    int length = 0;
    EXPECT_EQ(logger.pack_send_buff(request, length, "data", 4, 1, 0, 1), 0);
    delete[] request;
    logger.encode(name, name);
    logger.get_errmsg();
    EXPECT_EQ(logger.init(7), 1);

    std::string address = "127.0.0.1";
    CLogger module;
    EXPECT_EQ(module.init(7), 0);
    module.write_modulelog(1, 2, address, address, address, 1, 2, 3, 4, 5);
    module.write_modulelog_forIM(1, 2, address, address, address, 1, 2, 3, 4, 5);
}

void useFormattedForm(int8_t transport) {
    CLogger logger(transport);
    EXPECT_EQ(logger.init("stack"), 0);
    const unsigned timestamp = 1;
    logger.write_baselog(LT_NORMAL, timestamp, "%d %s %.20g %*d", 1, "text", 1e300, 2000, 7);
}

TEST(StackTest, NeedsNoMoreThanTheHeaderSays) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers need more stack";
#endif
    std::filesystem::create_directories("/data/qvagent");
    for (const int8_t transport : {0, 1, 2}) {
        for (const bool hasAgent : {false, true}) {
            const auto agent = hasAgent ? std::make_unique<TestAgent>(transport) : nullptr;
            EXPECT_LE(stackUse<useEveryOperation>(transport), 32768U) << int{transport} << hasAgent;
            EXPECT_LE(stackUse<useFormattedForm>(transport), 49152U) << int{transport} << hasAgent;
        }
    }
}

}  // namespace
}  // namespace Quorvel
