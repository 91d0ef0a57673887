#include <limits.h>
#include <string.h>

#include "qvapi_cpp.h"
#include "request_bytes.h"
#include "support.h"

namespace Quorvel {
namespace {

using namespace std::string_literals;
using Call = std::function<int(CLogger&)>;

// Calls on a logger, as values of a row.
#define QV_INIT(...) [&](CLogger& logger) { return logger.init(__VA_ARGS__); }
#define QV_WRITE(...) [&](CLogger& logger) { return logger.write_baselog(__VA_ARGS__); }

#define QV_PACK(...) \
    [&](CLogger& logger) { return logger.pack_send_buff(buffer, length, __VA_ARGS__, kTime); }

enum Mode { kNew, kApp, kModule };

const unsigned int kTime = 1400000000;
const unsigned int kZero = 0;
const std::string kLongName(65533, 'n');

// Writes a string that announces more characters than a machine may have memory for.
int writeTextOver4GiB(CLogger& logger) {
    const size_t length = (1LL << 32) + 5;
    const uintptr_t fields[] = {16, length, length, 0};
    alignas(std::string) char storage[sizeof(std::string)];
    memcpy(storage, fields, sizeof(storage));
    return logger.write_baselog(1, *reinterpret_cast<const std::string*>(storage), false, 1);
}

TEST(LoggerTest, RefusesInTheOrderOfItsTestsAndSendsNothing) {
    char* buffer = nullptr;
    int length = 0;
    const std::string invoke = "write_baselog: wrong invoke";
    const std::string tooLong = "sendWithoutRecv buff length -1";
    const std::tuple<Mode, Call, int, std::string> rows[] = {
        {kNew, QV_INIT(""), 1, "init: length of logName is 0"},
        {kNew, QV_INIT(0), 1, "init mod mid[0] error"},
        {kNew, QV_INIT(kLongName + "n"), 1, "init: length of logName is 65534, more than 65533"},
        {kNew, QV_PACK(nullptr, 1, 1, 0), 1, "pack_send_buff: logname is not init"},
        {kApp, QV_PACK(nullptr, 30721, 1, 0), 11, "pack_send_buff: data is null"},
        {kApp, QV_PACK("data", 30721, 1, 2), 2, "pack: length is 30721 > 30720"},
        {kModule, QV_PACK("data", 4, 127, -1), 12, "pack_send_buff error pro type[-1]"},
        {kApp, QV_PACK("data", 4, 127, 0), 13, "pack_send_buff error logtype[127]"},
        {kModule, QV_PACK("data", 4, -1, 1), 13, "pack_send_buff error logtype[-1]"},
        {kNew, QV_WRITE(nullptr, 4, -1, 2, 1), 1, "writebaselog2: is not init"},
        {kNew, QV_WRITE(-1, "", true, 1), 1, "writebaselog: is not init"},
        {kNew, QV_WRITE(-1, kTime, "x"), 1, "writebaselog: not init"},
        {kModule, QV_WRITE(nullptr, 4, 111, 2, 1), 13, invoke},
        {kModule, QV_WRITE(111, "", true, 1), 2, "write_baselog: data empty"},
        {kModule, QV_WRITE(-1, kTime, "x"), 13, invoke},
        {kApp, QV_WRITE(nullptr, 4, 111, 2, 1), 13, "write_baselog: wrong logtype 111"},
        {kApp, QV_WRITE(-128, "x", true, 1), 13, "write_baselog: wrong logtype -128"},
        {kApp, QV_WRITE(-1, kTime, "x"), 13, "write_baselog: wrong logtype -1"},
        {kApp, QV_WRITE(nullptr, 4, 110, 2, 1), 11, "comm_write: data is null"},
        {kApp, QV_WRITE("x", UINT_MAX, 1, 2, 1), 12, "comm_write error cmd[2]"},
        {kApp, QV_WRITE("x", INT_MAX - 20, 1, 0, 1), 6, tooLong},
        {kApp, QV_WRITE("x", UINT_MAX, 1, 0, 1), 6, tooLong},
        {kApp, writeTextOver4GiB, 6, tooLong},
    };
    Agent agent(kUdp);
    for (const auto& [mode, call, code, text] : rows) {
        SCOPED_TRACE(text);
        CLogger logger;
        logger.set_socktype(-1);  // like any but 0 and 1: datagrams
        EXPECT_EQ(mode == kNew ? 0 : mode == kModule ? logger.init(1234) : logger.init("app"), 0);
        EXPECT_EQ(keepingErrno([&, &refused = call] { return refused(logger); }), code);
        EXPECT_EQ(logger.get_errmsg(), text);
        EXPECT_TRUE(agent.isIdle() && buffer == nullptr && length == 0);
        EXPECT_EQ(logger.init("late"), mode == kNew ? 0 : 1);
        EXPECT_EQ(logger.write_baselog(1, "x", false, 1), mode == kModule ? 13 : 0);
        EXPECT_EQ(mode == kModule ? "late" : agent.receive(30).substr(18, 4),
                  mode == kApp ? "appx" : "late");
    }
}

TEST(LoggerTest, DeliversEachFormAsItsBody) {
    const std::string xs(40000, 'x');
    const std::string binary = "\0\xFF%&\n"s;
    // Formats that the compiler would warn about are strings.
    const std::tuple<Call, int, int, unsigned int, std::string> rows[] = {
        {QV_WRITE(binary.data(), 5, 110, 1, kTime), 6, 110, kTime, binary},
        {QV_WRITE("x", 0, 0, 0, 0), 3, 0, 0, ""},
        {QV_WRITE(xs.data(), 30715, 1, 0, 1), 3, 1, 1, xs.substr(0, 30715)},
        {QV_WRITE(xs.data(), 30716, 1, 0, UINT_MAX), 3, 1, UINT_MAX, xs.substr(0, 30716)},
        {QV_WRITE(5, binary, true, kTime), 3, 5, kTime, binary},
        {QV_WRITE(127, kTime, "%d", 7), 3, 127, kTime, "_msg=7"},
        {QV_WRITE(0, kZero, "x=%d y=%d", 1, 2), 3, 0, 0, "_msg=x=\t1 y=\t2"},
        {QV_WRITE(1, kZero, ""s.c_str()), 3, 1, 0, "_msg="},
        {QV_WRITE(1, kZero, "100%%"), 3, 1, 0, "_msg=100\t%\t%"},
        {QV_WRITE(1, kZero, "50%% nodes"), 3, 1, 0, "_msg=50\t%\t% nodes"},
        {QV_WRITE(1, kZero, "%%%s%%%%", "s"), 3, 1, 0, "_msg=%\t%\ts\t%\t%\t%\t%"},
        {QV_WRITE(1, kZero, "%5%n"s.c_str()), 3, 1, 0, "_msg=%5\t%n"},
        {QV_WRITE(1, kZero, "a%"s.c_str()), 3, 1, 0, "_msg=a\t"},
        {QV_WRITE(1, kZero, "%c|%s", 0, "x"), 3, 1, 0, "_msg=\0|\tx"s},
        {QV_WRITE(1, kZero, "no%lc!", wint_t{0x20AC}), 3, 1, 0, "_msg=no\t"},
        {QV_WRITE(1, kZero, (xs.substr(0, 2041) + "%d").c_str(), 7), 3, 1, 0,
         "_msg=" + xs.substr(0, 2041) + "\t"},
        {QV_WRITE(1, kZero, "%s", xs.c_str()), 3, 1, 0, "_msg=" + xs.substr(0, 30714)},
    };
    Agent agent(kUdp);
    CLogger logger(kUdp);
    EXPECT_EQ(logger.init("app"), 0);
    for (const auto& [call, command, type, time, body] : rows) {
        EXPECT_EQ(keepingErrno([&, &write = call] { return write(logger); }), 0);
        EXPECT_EQ(agent.receive(65536), requestBytes("app", body, type, command, time));
    }
}

TEST(LoggerTest, PacksUnderTheLongestNameAndCutsItInAnErrorText) {
    CLogger logger(kUnix, false);
    char* buffer = nullptr;
    int length = 0;
    EXPECT_EQ(logger.init(kLongName), 0);
    EXPECT_EQ(logger.pack_send_buff(buffer, length, "data", 4, 126, 1, kTime), 0);
    EXPECT_EQ(std::string(buffer, length), requestBytes(kLongName, "data", 126, 6, kTime));
    delete[] buffer;
    EXPECT_EQ(logger.init("again"), 1);
    EXPECT_EQ(logger.get_errmsg(), "init: already init with appname:" + kLongName.substr(0, 990));
}

TEST(LoggerTest, EscapesWhatSeparatesPairsAlsoInPlace) {
    CLogger logger;
    std::string text = "\0\t\n\r%&=\1 +x\x7F\x80\xFF"s;
    std::string target = "old";
    EXPECT_EQ(keepingErrno([&] { return logger.encode(text, target); }), 0);
    EXPECT_EQ(target, "%00%09%0A%0D%25%26%3D\1 +x\x7F\x80\xFF");
    EXPECT_EQ(logger.encode(text, text), 0);
    EXPECT_EQ(text, target);
}

}  // namespace
}  // namespace Quorvel
