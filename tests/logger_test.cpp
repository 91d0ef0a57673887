#include <limits.h>

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

enum class Mode { kNone, kApplication, kModule };

const unsigned int kTime = 1400000000;
const unsigned int kZero = 0;
const std::string kLongestName(65533, 'n');

using Refusal = std::tuple<Mode, Call, int, std::string>;

/// A logger over UDP, and the agent.
class LoggerTest : public testing::Test {
 protected:
    void expectRefused(const std::vector<Refusal>& rows) {
        for (const auto& [mode, call, code, text] : rows) {
            CLogger logger(kUdp);
            if (mode != Mode::kNone) {
                EXPECT_EQ(mode == Mode::kModule ? logger.init(1234) : logger.init("app"), 0);
            }
            EXPECT_EQ(call(logger), code) << text;
            EXPECT_EQ(logger.get_errmsg(), text);
            EXPECT_TRUE(m_agent.isIdle()) << text;
        }
    }

    /// The body of the record that a call sends.
    std::string sent(const Call& write) {
        EXPECT_EQ(write(m_logger), 0);
        return decoded(m_agent.receive(65536)).body;
    }

    Agent m_agent{kUdp};
    CLogger m_logger{kUdp};
};

class ApplicationTest : public LoggerTest {
 protected:
    ApplicationTest() { EXPECT_EQ(m_logger.init("app"), 0); }
};

TEST_F(LoggerTest, RefusesNamesThatNoRequestHolds) {
    expectRefused({
        {Mode::kNone, QV_INIT(""), 1, "init: length of logName is 0"},
        {Mode::kNone, QV_INIT(kLongestName + "n"), 1,
         "init: length of logName is 65534, more than 65533"},
        {Mode::kNone, QV_INIT(0), 1, "init mod mid[0] error"},
        {Mode::kNone, QV_INIT(INT_MIN), 1, "init mod mid[-2147483648] error"},
    });
}

TEST_F(LoggerTest, KeepsTheFirstNameThatItTook) {
    EXPECT_EQ(m_logger.init(0), 1);
    EXPECT_EQ(m_logger.init("app"), 0);
    EXPECT_EQ(m_logger.init("again"), 1);
    EXPECT_EQ(m_logger.get_errmsg(), "init: already init with appname:app");
    EXPECT_EQ(m_logger.write_baselog(1, "x", false, kTime), 0);
    EXPECT_EQ(m_agent.receive(100), requestBytes("app", "x", 1));
}

TEST_F(LoggerTest, TellsWhetherItLocks) {
    EXPECT_TRUE(CLogger(kUdp).get_lock());
    EXPECT_FALSE(CLogger(kUdp, false).get_lock());
}

TEST_F(ApplicationTest, TellsTheLogTypeOfItsStatistics) {
    EXPECT_EQ(m_logger.get_logtype(), 0);
    EXPECT_EQ(m_logger.set_stat(false, 5, 0, 0), 0);
    EXPECT_EQ(m_logger.get_logtype(), 5);
}

TEST_F(ApplicationTest, SwitchesStatisticsOffAtEveryInit) {
    std::map<std::string, int> values;
    EXPECT_EQ(m_logger.set_stat(true, 5, 1, 99), 0);
    EXPECT_EQ(m_logger.write_statlogs("data", values, QV_STAT_TYPE_SUM, 1), 0);
    EXPECT_EQ(m_logger.init("again"), 1);
    EXPECT_EQ(m_logger.write_statlogs("data", values, QV_STAT_TYPE_SUM, 1), 1);
}

TEST_F(LoggerTest, PacksOnlyWhatARequestMayHold) {
    char* buffer = nullptr;
    int length = 0;
    expectRefused({
        {Mode::kNone, QV_PACK(nullptr, 1, 1, 0), 1, "pack_send_buff: logname is not init"},
        {Mode::kApplication, QV_PACK(nullptr, 30721, 1, 0), 11, "pack_send_buff: data is null"},
        {Mode::kApplication, QV_PACK("x", 30721, 1, 2), 2, "pack: length is 30721 > 30720"},
        {Mode::kModule, QV_PACK("x", 1, 127, -1), 12, "pack_send_buff error pro type[-1]"},
        {Mode::kApplication, QV_PACK("x", 1, 127, 0), 13, "pack_send_buff error logtype[127]"},
        {Mode::kModule, QV_PACK("x", 1, -1, 1), 13, "pack_send_buff error logtype[-1]"},
    });
    EXPECT_TRUE(buffer == nullptr && length == 0);
}

TEST_F(LoggerTest, WritesOnlyWhatARequestMayHold) {
    const std::string invoke = "write_baselog: wrong invoke";
    const std::string wrongType = "write_baselog: wrong logtype ";
    const std::string tooLong = "sendWithoutRecv buff length -1";
    expectRefused({
        {Mode::kNone, QV_WRITE(nullptr, 4, -1, 2, 1), 1, "writebaselog2: is not init"},
        {Mode::kNone, QV_WRITE(-1, "", true, 1), 1, "writebaselog: is not init"},
        {Mode::kNone, QV_WRITE(-1, kTime, "x"), 1, "writebaselog: not init"},
        {Mode::kModule, QV_WRITE(nullptr, 4, 111, 2, 1), 13, invoke},
        {Mode::kModule, QV_WRITE(111, "", true, 1), 2, "write_baselog: data empty"},
        {Mode::kModule, QV_WRITE(-1, kTime, "x"), 13, invoke},
        {Mode::kApplication, QV_WRITE(nullptr, 4, 111, 2, 1), 13, wrongType + "111"},
        {Mode::kApplication, QV_WRITE(-128, "x", true, 1), 13, wrongType + "-128"},
        {Mode::kApplication, QV_WRITE(-1, kTime, "x"), 13, wrongType + "-1"},
        {Mode::kApplication, QV_WRITE(nullptr, 4, 110, 2, 1), 11, "comm_write: data is null"},
        {Mode::kApplication, QV_WRITE("x", UINT_MAX, 1, 2, 1), 12, "comm_write error cmd[2]"},
        {Mode::kApplication, QV_WRITE("x", INT_MAX - 20, 1, 0, 1), 6, tooLong},
        {Mode::kApplication, QV_WRITE("x", UINT_MAX, 1, 0, 1), 6, tooLong},
    });
}

TEST_F(ApplicationTest, SendsRecordsOfAnyBytesAndLength) {
    const std::string xs(30716, 'x'), binary = "\0\xFF%&\n"s;
    const std::tuple<Call, int, int, unsigned int, std::string> rows[] = {
        {QV_WRITE(binary.data(), 5, 110, 1, kTime), 6, 110, kTime, binary},
        {QV_WRITE(5, binary, true, kTime), 3, 5, kTime, binary},
        {QV_WRITE("x", 0, 0, 0, 0), 3, 0, 0, ""},
        {QV_WRITE(xs.data(), 30715, 1, 0, 1), 3, 1, 1, xs.substr(1)},
        {QV_WRITE(xs.data(), 30716, 1, 0, UINT_MAX), 3, 1, UINT_MAX, xs},
        {QV_WRITE(127, kTime, "%d", 7), 3, 127, kTime, "_msg=7"},
    };
    for (const auto& [call, command, type, time, body] : rows) {
        EXPECT_EQ(call(m_logger), 0);
        EXPECT_EQ(m_agent.receive(65536), requestBytes("app", body, type, command, time));
    }
}

TEST_F(ApplicationTest, PutsATabBeforeEveryPercentSignButAFirstOne) {
    const std::pair<Call, std::string> rows[] = {
        {QV_WRITE(1, kZero, "x=%d y=%d", 1, 2), "x=\t1 y=\t2"},
        {QV_WRITE(1, kZero, ""s.c_str()), ""},  // the compiler would warn about literals like it
        {QV_WRITE(1, kZero, "%c|%s", 0, "x"), "\0|\tx"s},
        {QV_WRITE(1, kZero, "100%%"), "100\t%\t%"},
        {QV_WRITE(1, kZero, "50%% nodes"), "50\t%\t% nodes"},
        {QV_WRITE(1, kZero, "%%%s%%%%", "s"), "%\t%\ts\t%\t%\t%\t%"},
        {QV_WRITE(1, kZero, "a%"s.c_str()), "a\t"},
        {QV_WRITE(1, kZero, "conversion fails%lc!", wint_t{0x20AC}), "conversion fails\t"},
    };
    for (const auto& [call, body] : rows) {
        EXPECT_EQ(sent(call), "_msg=" + body);
    }
}

TEST_F(ApplicationTest, Uses2047CharactersOfTheRewrittenFormat) {
    const struct {
        int letters;
        std::string format, text;
    } rows[] = {{2041, "%d", "\t"}, {2041, "%%", "\t"}, {2040, "%%", "\t%"}, {2042, "%%", ""}};
    for (const auto& row : rows) {
        const std::string letters(row.letters, 'x'), format = letters + row.format;
        EXPECT_EQ(sent(QV_WRITE(1, kZero, format.c_str(), 7)), "_msg=" + letters + row.text);
    }
}

TEST_F(ApplicationTest, CountsNoSignThatKeepsAPairFromTheFormatter) {
    const std::string letters(1850, 'x');
    std::string pairs(80, '%'), signs;
    for (int i = 0; i < 80; ++i) {
        signs += "\t%";
    }
    EXPECT_EQ(sent(QV_WRITE(1, kZero, (letters + pairs + "END").c_str())),
              "_msg=" + letters + signs + "END");
}

TEST_F(ApplicationTest, Sends30719CharactersOfAFormattedText) {
    const std::string letters(40000, 'x');
    EXPECT_EQ(sent(QV_WRITE(1, kZero, "%s", letters.c_str())), "_msg=" + letters.substr(0, 30714));
}

TEST_F(LoggerTest, EscapesWhatSeparatesPairsAlsoInPlace) {
    std::string text = "\0\t\n\r%&=\1 +x\x7F\x80\xFF"s;
    EXPECT_EQ(m_logger.encode(text, text), 0);
    EXPECT_EQ(text, "%00%09%0A%0D%25%26%3D\1 +x\x7F\x80\xFF");
}

}  // namespace
}  // namespace Quorvel
