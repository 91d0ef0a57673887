#include <limits.h>
#include <string.h>

#include "qvapi_cpp.h"
#include "request_decoder.h"
#include "support.h"

namespace Quorvel {
namespace {

using namespace std::string_literals;
using Call = std::function<int(CLogger&)>;

// Calls on a logger, as values of a row.
#define QV_INIT(...) [&](CLogger& logger) { return logger.init(__VA_ARGS__); }
#define QV_WRITE(...) [&](CLogger& logger) { return logger.write_baselog(__VA_ARGS__); }

enum Mode { kNew, kApp, kModule };

const unsigned int kTime = 1400000000;
const unsigned int kZero = 0;
const std::string kLongName(65533, 'n');

int init(CLogger& logger, Mode mode) {
    return mode == kNew ? 0 : mode == kModule ? logger.init(1234) : logger.init("app");
}

// Packs four bytes that nobody may look at, and leaves the results alone.
Call pack(bool isNull, unsigned int length, int8_t type, int8_t proType) {
    return [=](CLogger& logger) {
        char* buffer = nullptr;
        int retLen = -7;
        const int res = logger.pack_send_buff(buffer, retLen, isNull ? nullptr : "data", length,
                                              type, proType, kTime);
        EXPECT_TRUE(buffer == nullptr && retLen == -7);
        return res;
    };
}

// Writes a string that announces more characters than a machine may have memory for.
Call textOfLength(size_t length) {
    return [=](CLogger& logger) {
        const uintptr_t fields[] = {16, length, length, 0};
        alignas(std::string) char storage[sizeof(std::string)];
        memcpy(storage, fields, sizeof(storage));
        return logger.write_baselog(1, *reinterpret_cast<const std::string*>(storage), false, 1);
    };
}

TEST(LoggerTest, RefusesInTheOrderOfItsTestsAndSendsNothing) {
    const std::string wrongInvoke = "write_baselog: wrong invoke";
    const std::string tooLong = "sendWithoutRecv buff length -1";
    const std::tuple<Mode, Call, int, std::string> rows[] = {
        {kNew, QV_INIT(""), 1, "init: length of logName is 0"},
        {kNew, QV_INIT(0), 1, "init mod mid[0] error"},
        {kNew, QV_INIT(kLongName + "n"), 1, "init: length of logName is 65534, more than 65533"},
        {kApp, QV_INIT(""), 1, "init: already init with appname:app"},
        {kModule, QV_INIT(0), 1, "init: already init with appname:mod1234"},
        {kNew, pack(true, 1, 1, 0), 1, "pack_send_buff: logname is not init"},
        {kApp, pack(true, 30721, 1, 0), 11, "pack_send_buff: data is null"},
        {kApp, pack(false, 30721, 1, 2), 2, "pack: length is 30721 > 30720"},
        {kApp, pack(false, 4, 127, 2), 12, "pack_send_buff error pro type[2]"},
        {kModule, pack(false, 4, 1, -1), 12, "pack_send_buff error pro type[-1]"},
        {kApp, pack(false, 4, 127, 0), 13, "pack_send_buff error logtype[127]"},
        {kModule, pack(false, 4, -1, 1), 13, "pack_send_buff error logtype[-1]"},
        {kNew, QV_WRITE(nullptr, 4, -1, 2, 1), 1, "writebaselog2: is not init"},
        {kNew, QV_WRITE(-1, "", true, 1), 1, "writebaselog: is not init"},
        {kNew, QV_WRITE(-1, kTime, "x"), 1, "writebaselog: not init"},
        {kModule, QV_WRITE(nullptr, 4, 111, 2, 1), 13, wrongInvoke},
        {kModule, QV_WRITE(111, "", true, 1), 2, "write_baselog: data empty"},
        {kModule, QV_WRITE(111, "x", true, 1), 13, wrongInvoke},
        {kModule, QV_WRITE(-1, kTime, "x"), 13, wrongInvoke},
        {kApp, QV_WRITE(nullptr, 4, 111, 2, 1), 13, "write_baselog: wrong logtype 111"},
        {kApp, QV_WRITE(-128, "x", true, 1), 13, "write_baselog: wrong logtype -128"},
        {kApp, QV_WRITE(-1, kTime, "x"), 13, "write_baselog: wrong logtype -1"},
        {kApp, QV_WRITE(nullptr, 4, 110, 2, 1), 11, "comm_write: data is null"},
        {kApp, QV_WRITE("x", UINT_MAX, 1, 2, 1), 12, "comm_write error cmd[2]"},
        {kApp, QV_WRITE("x", INT_MAX - 20, 1, 0, 1), 6, tooLong},
        {kApp, QV_WRITE("x", UINT_MAX, 1, 0, 1), 6, tooLong},
        {kApp, textOfLength((1LL << 32) + 5), 6, tooLong},
    };
    Agent agent(kUdp);
    for (const auto& row : rows) {
        const auto& [mode, call, code, text] = row;
        SCOPED_TRACE(text);
        CLogger logger(kUdp);
        EXPECT_EQ(init(logger, mode), 0);
        EXPECT_EQ(logger.get_errmsg(), "");
        EXPECT_EQ(keepingErrno([&] { return std::get<Call>(row)(logger); }), code);
        EXPECT_EQ(logger.get_errmsg(), text);
        EXPECT_TRUE(agent.isIdle());
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
        {QV_WRITE(xs.data(), 40000, 1, 0, UINT_MAX), 3, 1, UINT_MAX, xs},
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
        {QV_WRITE(1, kZero, xs.c_str()), 3, 1, 0, "_msg=" + xs.substr(0, 2042)},
        {QV_WRITE(1, kZero, (xs.substr(0, 2041) + "%d").c_str(), 7), 3, 1, 0,
         "_msg=" + xs.substr(0, 2041) + "\t"},
        {QV_WRITE(1, kZero, "%s", xs.c_str()), 3, 1, 0, "_msg=" + xs.substr(0, 30714)},
    };
    Agent agent(kUdp);
    CLogger logger(kUdp);
    EXPECT_EQ(logger.init("app"), 0);
    EXPECT_EQ(logger.write_baselog(1, "", false, 1), 2);
    for (const auto& row : rows) {
        const auto& [call, command, type, time, body] = row;
        SCOPED_TRACE(body.substr(0, 50));
        EXPECT_EQ(keepingErrno([&] { return std::get<Call>(row)(logger); }), 0);
        const std::string bytes = agent.receive(65536);
        Request request = {};
        std::string error;
        EXPECT_TRUE(decodeRequest(bytes.data(), bytes.size(), request, error)) << error;
        EXPECT_EQ(std::tuple(request.command, request.logType, request.timestamp, request.body),
                  std::tuple(command, type, time, body));
        EXPECT_EQ(request.application, "app");
        EXPECT_EQ(logger.get_errmsg(), "write_baselog: data empty");
    }
}

TEST(LoggerTest, FramesShortAndLongBodiesWithUnusedFieldsZero) {
    const std::string data(30720, 'd');
    const std::tuple<std::string, int, int8_t, int8_t, unsigned int, std::string> rows[] = {
        {"app", 5, 5, 0, kTime, "\3\x85\0\x0A\0\2\0\1\x53\x72\x4E\0\0\0\0\0\0\3"s},
        {"app", 0, 0, 0, 0, "\3\x80\0\5\0\2\0\1\0\0\0\0\0\0\0\0\0\3"s},
        {"app", 30715, 126, 1, 1, "\6\xFE\x78\0\0\2\0\1\0\0\0\1\0\0\0\0\0\3"s},
        {"app", 30716, 1, 1, 1, "\6\x81\0\0\0\2\0\x9\0\0\0\1\0\0\x78\1\0\3"s},
        {"app", 30720, 1, 0, 1, "\3\x81\0\0\0\2\0\x9\0\0\0\1\0\0\x78\5\0\3"s},
        {kLongName, 1, 1, 0, 1, "\3\x81\0\0\0\2\0\x9\0\0\0\1\0\1\0\0\xFF\xFD"s},
    };
    for (const auto& [name, size, type, proType, time, header] : rows) {
        SCOPED_TRACE(size);
        CLogger logger;
        EXPECT_EQ(logger.init(name), 0);
        char* buffer = nullptr;
        int length = 0;
        EXPECT_EQ(logger.pack_send_buff(buffer, length, data.data(), size, type, proType, time), 0);
        const std::unique_ptr<char[]> request(buffer);
        EXPECT_TRUE(std::string(buffer, length) == header + name + data.substr(0, size));
    }
}

TEST(LoggerTest, TakesItsTransportFromTheLastSocketTypeBeforeInit) {
    const std::tuple<int8_t, int8_t, Transport> rows[] = {
        {2, 0, kUnix}, {0, 1, kTcp}, {0, 2, kUdp}, {0, -1, kUdp}, {1, 127, kUdp}};
    for (const auto& [constructed, set, transport] : rows) {
        Agent agents[] = {Agent(kUnix), Agent(kTcp), Agent(kUdp)};
        CLogger logger(constructed, false);
        logger.set_socktype(set);
        EXPECT_EQ(logger.init("app"), 0);
        logger.set_socktype(transport == kUdp ? kUnix : kUdp);
        EXPECT_EQ(logger.write_baselog(1, "x", false, 1), 0);
        EXPECT_EQ(agents[transport].receive(22).substr(18, 4), "appx");
        EXPECT_TRUE(agents[kUnix].isIdle() && agents[kTcp].isIdle() && agents[kUdp].isIdle());
    }
}

TEST(LoggerTest, EscapesWhatSeparatesPairsAlsoInPlace) {
    CLogger logger;
    std::string source = "\0\t\n\r%&=\1 +x\x7F\x80\xFF"s;
    const std::string escaped = "%00%09%0A%0D%25%26%3D\1 +x\x7F\x80\xFF";
    std::string target = "old";
    EXPECT_EQ(keepingErrno([&] { return logger.encode(source, target); }), 0);
    EXPECT_EQ(target, escaped);
    EXPECT_EQ(logger.encode(source, source), 0);
    EXPECT_EQ(source, escaped);
}

TEST(LoggerTest, KeepsTheFirst1022CharactersOfAnErrorText) {
    CLogger logger(kUnix, false);
    EXPECT_EQ(logger.init(kLongName) + logger.init("again"), 1);
    EXPECT_EQ(logger.get_errmsg(), "init: already init with appname:" + kLongName.substr(0, 990));
}

}  // namespace
}  // namespace Quorvel
