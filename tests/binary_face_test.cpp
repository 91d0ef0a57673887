#include "qvapi_sampling.h"
#include "socket_client.h"
#include "support.h"

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

/// The only agent is that of the Unix stream; a datagram fails when an earlier one was refused.
void expectCode(int code, int8_t transport) {
    const int failures[] = {QV_ERR_OK, QV_ERR_CONNECT, QV_ERR_DATAGRAM};
    EXPECT_TRUE(code == failures[transport] || (transport == 2 && code == QV_ERR_OK)) << code;
}

void* useEveryOperation(void* argument) {
    const int8_t transport = *static_cast<int8_t*>(argument);
    std::string name = "stack";
    std::map<std::string, int> values = {{"value", 1}};
    CLogger logger, module;
    logger.set_socktype(transport);
    EXPECT_EQ(logger.init(name), 0);
    expectCode(logger.write_baselog("raw", 3, 1, 0, 1), transport);
    expectCode(logger.write_baselog(LT_NORMAL, std::string(40000, 'x'), false, 1), transport);
    EXPECT_EQ(logger.set_stat(true, 1, 0, 1), 0);
    EXPECT_EQ(logger.write_statlogs(name, values, QV_STAT_TYPE_SUM, 1), 0);
    EXPECT_EQ(logger.write_statlogs(name, values, QV_STAT_TYPE_SUM, 2), 0);
    char* request = nullptr;
    int length = 0;
    EXPECT_EQ(logger.pack_send_buff(request, length, "data", 4, 1, 0, 1), 0);
    delete[] request;
    EXPECT_EQ(logger.encode(name, name), 0);
    EXPECT_EQ(logger.init(7), 1);
    EXPECT_EQ(module.init(7), 0);
    expectCode(module.write_modulelog(1, 2, name, name, name, 1, 2, 3, 4, 5), 2);
    expectCode(module.write_modulelog_forIM(1, 2, name, name, name, 1, 2, 3, 4, 5), 2);
    return nullptr;
}

void* useFormattedForm(void* argument) {
    const int8_t transport = *static_cast<int8_t*>(argument);
    CLogger logger(transport);
    EXPECT_EQ(logger.init("stack"), 0);
    expectCode(logger.write_baselog(LT_NORMAL, 1U, "%d %.20g %*d", 1, 1e300, 2000, 7), transport);
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
