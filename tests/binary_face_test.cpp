#include <gtest/gtest.h>
#include <pthread.h>

#include <map>
#include <memory>

#include "qvapi_cpp.h"
#include "qvapi_sampling.h"
#include "socket_client.h"
#include "test_agent.h"

namespace Quorvel {
namespace {

static_assert(sizeof(CLogger) == 424, "applications keep loggers on their stacks");
static_assert(sizeof(SocketClient) == 304, "part of the binary interface");
static_assert(sizeof(Sampling) == 96, "part of the binary interface");

/// Overrunning the stack ends the program.
void runOnStack(size_t size, void* (*operation)(void*), int8_t transport) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size);
    pthread_attr_setguardsize(&attributes, 1 << 18);
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, &attributes, operation, &transport), 0);
    pthread_join(thread, nullptr);
}

void* useEveryOperation(void* transport) {
    std::string name = "stack";
    std::map<std::string, int> values = {{"value", 1}};
    CLogger logger, module;
    logger.set_socktype(*static_cast<int8_t*>(transport));
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
    EXPECT_EQ(logger.init(7), 1);
    EXPECT_EQ(module.init(7), 0);
    module.write_modulelog(1, 2, name, name, name, 1, 2, 3, 4, 5);
    module.write_modulelog_forIM(1, 2, name, name, name, 1, 2, 3, 4, 5);
    return nullptr;
}

void* useFormattedForm(void* transport) {
    CLogger logger(*static_cast<int8_t*>(transport));
    EXPECT_EQ(logger.init("stack"), 0);
    const unsigned timestamp = 1;
    logger.write_baselog(LT_NORMAL, timestamp, "%d %s %.20g %*d", 1, "text", 1e300, 2000, 7);
    return nullptr;
}

TEST(StackTest, NeedsNoMoreThanTheHeaderSays) {
    if (kIsSanitized) {
        GTEST_SKIP() << "the sanitizers need more stack";
    }
    std::filesystem::create_directories("/data/qvagent");
    const TestAgent agent(0);
    for (const int8_t transport : {0, 1, 2}) {
        runOnStack(32768, useEveryOperation, transport);
        runOnStack(49152, useFormattedForm, transport);
    }
}

}  // namespace
}  // namespace Quorvel
