#include <sstream>

#include "modulemsg.h"
#include "request_bytes.h"
#include "sampling_table.h"
#include "support.h"

namespace Quorvel {
namespace {

using namespace std::string_literals;

const unsigned int kTime = 1400000000;
const int kModule = 7;

enum Encoding { kBinary, kText };
enum Form { kPlain, kWithFip, kWithMid };

/// The arguments of a call; each form uses those that it has.
struct Call {
    int mid = 6, sid = 8, ifid = 9;
    std::string fip = "1.2.3.4", mip = "10.0.0.1", sip = "10.0.0.2";
    int retval = 0, result = 5, delay = 30, reqLen = 100, rspLen = 200;
};

// A call with something else than the usual.
#define CALL_WITH(change) \
    [&](Call call) {      \
        change;           \
        return call;      \
    }({})

/// Calls write_modulelog or write_modulelog_forIM.
int write(CLogger& logger, Encoding encoding, Form form, Call c) {
    const auto pass = [&](auto&... arguments) {
        return keepingErrno([&] {
            return encoding == kBinary ? logger.write_modulelog(arguments...)
                                       : logger.write_modulelog_forIM(arguments...);
        });
    };
    switch (form) {
        case kPlain:
            return pass(c.sid, c.ifid, c.mip, c.sip, c.retval, c.result, c.delay);
        case kWithFip:
            return pass(c.sid, c.ifid, c.fip, c.mip, c.sip, c.retval, c.result, c.delay, c.reqLen,
                        c.rspLen);
        default:
            return pass(c.mid, c.sid, c.ifid, c.fip, c.mip, c.sip, c.retval, c.result, c.delay,
                        c.reqLen, c.rspLen);
    }
}

std::string dotted(in_addr_t address) { return inet_ntoa({address}); }

/// The values of a binary record under the keys of the text record.
std::string asText(const std::string& body) {
    ModuleInvokeMsg m = {};
    ReservedData r = {};
    EXPECT_EQ(body.size(), sizeof(m) + sizeof(r));
    body.copy(reinterpret_cast<char*>(&m), sizeof(m));
    body.copy(reinterpret_cast<char*>(&r), sizeof(r), sizeof(m));
    EXPECT_EQ(m.iDelay, static_cast<int>(m.ullTotalDelay));
    char text[1000];
    snprintf(text, sizeof(text),
             "mid=%d&sid=%d&fip=%s&mip=%s&sip=%s&cnt=%ju&totaldelay=%jd&maxdelay=%d&mindelay=%d"
             "&avgdelay=%.0f&reqLen=%jd&rspLen=%jd",
             m.iMid, m.iSid, dotted(m.uiFip).c_str(), dotted(m.uiMip).c_str(),
             dotted(m.uiSip).c_str(), m.ullCnt, m.ullTotalDelay, m.iMaxDelay, m.iMinDelay,
             m.fAvgDelay, r.ullTotalReqPacketSize, r.ullTotalRspPacketSize);
    return text;
}

/// A module's logger, the agent, and its table with the rates of the module.
class ModuleRecordTest : public testing::TestWithParam<Encoding> {
 protected:
    ModuleRecordTest() {
        now = kTime;
        makeFallbackDirectory();
        createSamplingMarker();
        m_slot->isUsed = 1;
        strcpy(m_slot->appname, "mod7");
        setRate(1);
        EXPECT_EQ(m_logger.init(kModule), 0);
    }
    ~ModuleRecordTest() override {
        shmdt(m_slot);
        shmctl(m_table, IPC_RMID, nullptr);
    }

    /// Of this encoding's records; the other encoding's are all dropped.
    void setRate(uint8_t rate) {
        m_slot->logTypeItems[127].sampling = GetParam() == kBinary ? rate : 255;
        m_slot->logTypeItems[0].sampling = GetParam() == kText ? rate : 255;
    }
    int send(const Call& call, Form form = kWithMid) { return send(m_logger, call, form); }
    static int send(CLogger& logger, const Call& call, Form form = kWithMid) {
        return write(logger, GetParam(), form, call);
    }
    /// Receives a record that holds these pairs, among others.
    void expect(const std::string& pairs) {
        const std::string body = decoded(m_agent.receive(1000)).body;
        const std::string record = "&" + (GetParam() == kBinary ? asText(body) : body) + "&";
        std::istringstream stream(pairs);
        for (std::string pair; getline(stream, pair, '&');) {
            EXPECT_NE(record.find("&" + pair + "&"), record.npos) << pair << " in " << record;
        }
    }

    Agent m_agent{kUdp};
    const int m_table = shmget(kSamplingKey, 102800, IPC_CREAT | 0666);
    AppItem* const m_slot = static_cast<AppItem*>(shmat(m_table, nullptr, 0));
    CLogger m_logger;
};

INSTANTIATE_TEST_SUITE_P(, ModuleRecordTest, testing::Values(kBinary, kText), [](const auto& info) {
    return info.param == kBinary ? "Binary" : "Text";
});

TEST_P(ModuleRecordTest, HasTheBytesThatTheAgentKnows) {
    const std::string binary =
        "\x00\x4E\x72\x53\2\0\0\0\6\0\0\0\x8\0\0\0\x9\0\0\0\x0A\0\0\1\x0A\0\0\2\0\0\0\0\5\0\0\0"
        "\x1E\0\0\0\x1E\0\0\0\x1E\0\0\0\0\0\xF0\x41\1\0\0\0\0\0\0\0\x1E\0\0\0\0\0\0\0\1\2\3\4"
        "\0\0\0\0\x64\0\0\0\0\0\0\0\xC8\0\0\0\0\0\0\0"s;
    const std::string text =
        "typeid=1000238&time=1400000000&logid=2000000000&mid=6&sid=8&ifid=9&fip=1.2.3.4"
        "&mip=10.0.0.1&sip=10.0.0.2&result=5&retval=0&cnt=1&totaldelay=30&maxdelay=30"
        "&mindelay=30&avgdelay=30&reqLen=100&rspLen=200";
    EXPECT_EQ(send({}), 0);
    EXPECT_EQ(m_agent.receive(1000),
              GetParam() == kBinary
                  ? requestBytes("mod7", binary + std::string(80, 0), 127, 6, kTime)
                  : requestBytes("mod7", text, 0, 3, kTime));
}

TEST_P(ModuleRecordTest, HasTheLoggersModuleAndNothingElseThatItsFormLacks) {
    EXPECT_EQ(send({}, kPlain), 0);
    expect("mid=7&sid=8&fip=0.0.0.0&mip=10.0.0.1&reqLen=0&rspLen=0");
    EXPECT_EQ(send({}, kWithFip), 0);
    expect("mid=7&sid=8&fip=1.2.3.4&mip=10.0.0.1&reqLen=100&rspLen=200");
}

TEST_P(ModuleRecordTest, HasAddressesAsInetAddrReadsThem) {
    const char* const none = "255.255.255.255";
    const struct {
        std::string text, address;
    } rows[] = {{"0x1.2.03.4", "1.2.3.4"},   {"10.1", "10.0.0.1"}, {"0xA000002", "10.0.0.2"},
                {"256.1.1.1", none},         {"1.2.3.4.5", none},  {"", none},
                {std::string(32, '1'), none}};
    for (const auto& row : rows) {
        EXPECT_EQ(send(CALL_WITH(call.fip = call.mip = call.sip = row.text)), 0);
        expect("fip=" + row.address + "&mip=" + row.address + "&sip=" + row.address);
    }
}

TEST_P(ModuleRecordTest, StandsForAsManyCallsAsTheRateSays) {
    setRate(10);
    for (int call = 1; call <= 10; ++call) {
        EXPECT_EQ(send({}), 0);
        EXPECT_EQ(m_agent.isIdle(), call < 10);
    }
    expect("cnt=10&totaldelay=300&maxdelay=30&mindelay=30&avgdelay=30&reqLen=1000&rspLen=2000");
}

TEST_P(ModuleRecordTest, HasTotalsModulo32BitsWithTheirSign) {
    setRate(2);
    const Call call = CALL_WITH(call.delay = call.reqLen = call.rspLen = INT32_MAX);
    EXPECT_EQ(send(call), 0);
    EXPECT_EQ(send(call), 0);
    expect("totaldelay=-2&reqLen=-2&rspLen=-2");
}

TEST_P(ModuleRecordTest, CountsNothingInBinaryAndOneInTextAtARateOf0) {
    setRate(0);
    EXPECT_EQ(send({}), 0);
    expect(GetParam() == kBinary ? "cnt=0&totaldelay=0&reqLen=0&rspLen=0"
                                 : "cnt=1&totaldelay=30&reqLen=100&rspLen=200");
}

TEST_P(ModuleRecordTest, IsExemptByTheLowFiveBitsOfItsResult) {
    const struct {
        int exempted, result;
        bool isSent;
    } rows[] = {{0, 0, true},  {15, 15, true},  {35, 3, true},
                {3, 4, false}, {16, 16, false}, {-1, 31, false}};
    setRate(255);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.exempted);
        CLogger logger;
        EXPECT_EQ(logger.init(kModule), 0);
        logger.set_no_sample(row.exempted);
        send(logger, CALL_WITH(call.result = row.result));
        EXPECT_EQ(m_agent.takeDatagram(), row.isSent);
    }
}

TEST_P(ModuleRecordTest, IsSentAsOneCallWhileItsResultIsExempt) {
    setRate(255);
    m_logger.set_sample(5);
    EXPECT_EQ(send({}), 0);
    expect("cnt=1");
    m_logger.set_sample(5);
    EXPECT_EQ(send({}), 0);
    EXPECT_TRUE(m_agent.isIdle());
}

TEST_P(ModuleRecordTest, IsRefusedForItsArguments) {
    const std::string tooLong(33, '1');
    const std::tuple<Call, int, std::string> rows[] = {
        {CALL_WITH(call.delay = call.reqLen = -1), 16, "delay[-1] mid[6] sid[8] ifid[9] error"},
        {CALL_WITH(call.mid = 0), 16, "delay[30] mid[0] sid[8] ifid[9] error"},
        {CALL_WITH(call.sid = 0), 16, "delay[30] mid[6] sid[0] ifid[9] error"},
        {CALL_WITH(call.ifid = -9), 16, "delay[30] mid[6] sid[8] ifid[-9] error"},
        {CALL_WITH(call.reqLen = -1; call.mip = tooLong), 16, "reqLen[-1] rspLen[200] error"},
        {CALL_WITH(call.rspLen = -2), 16, "reqLen[100] rspLen[-2] error"},
        {CALL_WITH(call.mip = tooLong), 15, "ip addr length invalid"},
        {CALL_WITH(call.sip = tooLong), 15, "ip addr length invalid"},
    };
    for (const auto& [call, code, text] : rows) {
        EXPECT_EQ(send(call), code);
        EXPECT_EQ(m_logger.get_errmsg(), "write_modulelog: " + text);
        EXPECT_TRUE(m_agent.isIdle());
    }
}

TEST_P(ModuleRecordTest, IsDroppedBeforeItsAddressesAreLookedAt) {
    setRate(255);
    EXPECT_EQ(send(CALL_WITH(call.mip = call.sip = std::string(33, '1'))), 0);
    EXPECT_EQ(send(CALL_WITH(call.sid = 0)), 16) << "the other arguments come first";
}

TEST_P(ModuleRecordTest, IsRefusedForALongFipBeforeAllElse) {
    CLogger logger;
    EXPECT_EQ(send(logger, CALL_WITH(call.fip.assign(33, '1'))), 15);
    EXPECT_EQ(logger.get_errmsg(), "write_modulelog: fip addr length invalid");
}

TEST_P(ModuleRecordTest, IsRefusedOutsideModuleMode) {
    CLogger logger;
    EXPECT_EQ(send(logger, CALL_WITH(call.sid = 0)), 1);
    EXPECT_EQ(logger.get_errmsg(), "writemodulelog: is not init");
    EXPECT_EQ(logger.init("app"), 0);
    EXPECT_EQ(send(logger, CALL_WITH(call.sid = 0)), 1);
    EXPECT_EQ(logger.get_errmsg(), "write_modulelog: init error");
}

}  // namespace
}  // namespace Quorvel
