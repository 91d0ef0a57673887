#include <sys/shm.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "modulemsg.h"
#include "qvapi_cpp.h"
#include "qvapi_sampling.h"
#include "request_bytes.h"
#include "support.h"

namespace Quorvel {
namespace {

using Text = std::string;
const unsigned int kTime = 1400000000;
enum Encoding { kBinary, kText };
enum Form { kPlain, kFip, kMid };

/// The arguments of a call, and its text record.
const Text kCall =
    "mid=7&sid=8&ifid=9&fip=1.2.3.4&mip=10.0.0.1&sip=10.0.0.2&retval=0&result=5&delay=30"
    "&reqLen=100&rspLen=200";
const Text kRecord =
    "typeid=1000238&time=1400000000&logid=2000000000&mid=7&sid=8&ifid=9&fip=1.2.3.4&mip=10.0.0.1"
    "&sip=10.0.0.2&result=5&retval=0&cnt=1&totaldelay=30&maxdelay=30&mindelay=30&avgdelay=30"
    "&reqLen=100&rspLen=200";

/// `text` with the values of `changes` under the same keys.
Text with(const Text& text, const Text& changes) {
    Text changed = "&" + text + "&";
    std::istringstream pairs(changes);
    for (Text pair; getline(pairs, pair, '&');) {
        const size_t at = changed.find("&" + pair.substr(0, pair.find('=') + 1)) + 1;
        changed.replace(at, changed.find('&', at) - at, pair);
    }
    return changed.substr(1, changed.size() - 2);
}

template <class... Arguments>
int write(CLogger& logger, Encoding encoding, Arguments&&... arguments) {
    return encoding == kBinary ? logger.write_modulelog(arguments...)
                               : logger.write_modulelog_forIM(arguments...);
}

int send(CLogger& logger, Encoding e, Form form, const Text& changes) {
    std::vector<Text> v;
    std::vector<int> n;
    std::istringstream pairs(with(kCall, changes));
    for (Text pair; getline(pairs, pair, '&');) {
        v.push_back(pair.substr(pair.find('=') + 1));
        n.push_back(atoi(v.back().c_str()));
    }
    return keepingErrno([&] {
        if (form == kPlain) {
            return write(logger, e, n[1], n[2], v[4], v[5], n[6], n[7], n[8]);
        }
        if (form == kFip) {
            return write(logger, e, n[1], n[2], v[3], v[4], v[5], n[6], n[7], n[8], n[9], n[10]);
        }
        return write(logger, e, n[0], n[1], n[2], v[3], v[4], v[5], n[6], n[7], n[8], n[9], n[10]);
    });
}

Text dotted(in_addr_t address) { return inet_ntoa({address}); }

/// A binary record as the text record that says the same.
Text textOf(const Text& body) {
    ModuleInvokeMsg m = {};
    ReservedData r = {};
    EXPECT_EQ(body.size(), sizeof(m) + sizeof(r));
    body.copy(reinterpret_cast<char*>(&m), sizeof(m));
    body.copy(reinterpret_cast<char*>(&r), sizeof(r), sizeof(m));
    EXPECT_EQ(m.iDelay, static_cast<int>(m.ullTotalDelay));
    char text[1000];
    snprintf(text, sizeof(text),
             "typeid=1000238&time=%u&logid=2000000000&mid=%d&sid=%d&ifid=%d&fip=%s&mip=%s&sip=%s"
             "&result=%d&retval=%d&cnt=%ju&totaldelay=%jd&maxdelay=%d&mindelay=%d&avgdelay=%.0f"
             "&reqLen=%jd&rspLen=%jd",
             m.uiTime, m.iMid, m.iSid, m.iInterfaceid, dotted(m.uiFip).c_str(),
             dotted(m.uiMip).c_str(), dotted(m.uiSip).c_str(), m.iResult, m.iRetVal, m.ullCnt,
             m.ullTotalDelay, m.iMaxDelay, m.iMinDelay, m.fAvgDelay, r.ullTotalReqPacketSize,
             r.ullTotalRspPacketSize);
    return text;
}

/// The agent, and its table with the rates of one application.
class ModuleRecordTest : public testing::Test {
 protected:
    ModuleRecordTest() {
        now = kTime;
        std::filesystem::create_directories("/data/qvagent");
        const std::ofstream marker("/data/qvagent/qv_shm_sampling");
        m_slot->isUsed = 1;
        strcpy(m_slot->appname, "mod7");
    }
    ~ModuleRecordTest() override {
        shmdt(m_slot);
        shmctl(m_table, IPC_RMID, nullptr);
    }

    void setRates(int binary, int text) {
        m_slot->logTypeItems[127].sampling = static_cast<uint8_t>(binary);
        m_slot->logTypeItems[0].sampling = static_cast<uint8_t>(text);
    }
    Text receive(Encoding encoding) {
        const Text body = decoded(m_agent.receive(1000)).body;
        return encoding == kBinary ? textOf(body) : body;
    }

    Agent m_agent{kUdp};
    const int m_table = shmget(9777, 102800, IPC_CREAT | 0666);
    AppItem* const m_slot = static_cast<AppItem*>(shmat(m_table, nullptr, 0));
};

TEST_F(ModuleRecordTest, SendsTheBytesThatTheAgentKnows) {
    using namespace std::string_literals;
    const Text binary =
        "\x00\x4E\x72\x53\2\0\0\0\7\0\0\0\x8\0\0\0\x9\0\0\0\x0A\0\0\1\x0A\0\0\2\0\0\0\0\5\0\0\0"
        "\x1E\0\0\0\x1E\0\0\0\x1E\0\0\0\0\0\xF0\x41\1\0\0\0\0\0\0\0\x1E\0\0\0\0\0\0\0\1\2\3\4"
        "\0\0\0\0\x64\0\0\0\0\0\0\0\xC8\0\0\0\0\0\0\0"s;
    CLogger logger;
    ASSERT_EQ(logger.init(1234), 0);
    EXPECT_EQ(send(logger, kBinary, kMid, ""), 0);
    EXPECT_EQ(m_agent.receive(1000), requestBytes("mod1234", binary + Text(80, 0), 127, 6, kTime));
    EXPECT_EQ(send(logger, kText, kMid, ""), 0);
    EXPECT_EQ(m_agent.receive(1000), requestBytes("mod1234", kRecord, 0, 3, kTime));
}

TEST_F(ModuleRecordTest, SendsWhatTheCallAndTheRateSay) {
    const Text invalid = "fip=1.2.3.4.5&mip=256.1.1.1&sip=" + Text(32, '1');
    const Text none = "fip=255.255.255.255&mip=255.255.255.255&sip=255.255.255.255";
    const Text times10 = "cnt=10&totaldelay=300&reqLen=1000&rspLen=2000";
    const Text zeros = "cnt=0&totaldelay=0&reqLen=0&rspLen=0";
    const Text delay0 = "totaldelay=0&maxdelay=0&mindelay=0&avgdelay=0";
    const Text large = "delay=2147483647&reqLen=858993460&rspLen=0&retval=-1&result=-2147483648";
    const Text largeTimes10 =
        "result=-2147483648&retval=-1&cnt=10&totaldelay=-10&maxdelay=2147483647"
        "&mindelay=2147483647&reqLen=8&rspLen=0&avgdelay=";
    const struct {
        Form form;
        Text call;
        int rate, dropped;
        Text record, binary;  ///< and what differs in the binary one
    } rows[] = {
        {kPlain, "", 1, 0, "fip=0.0.0.0&reqLen=0&rspLen=0", ""},
        {kMid, "mid=1&sid=1&ifid=1&delay=0", 1, 0, "mid=1&sid=1&ifid=1&" + delay0, ""},
        {kFip, "mid=70&fip=0x1.2.03.4&mip=10.1&sip=0xA000002", 1, 0, "", ""},
        {kMid, invalid, 1, 0, none, ""},
        {kMid, "", 0, 0, "", zeros},
        {kMid, "", 10, 9, times10, ""},
        {kMid, large, 10, 9, largeTimes10 + "2147483647", "avgdelay=2147483648"},
        {kMid, "result=3", 255, 0, "result=3", ""},
    };
    for (const auto& row : rows) {
        for (const Encoding encoding : {kBinary, kText}) {
            SCOPED_TRACE(testing::Message() << "row " << &row - rows << ", " << encoding);
            CLogger logger;
            ASSERT_EQ(logger.init(7), 0);
            logger.set_no_sample(3);
            encoding == kBinary ? setRates(row.rate, 255) : setRates(255, row.rate);
            for (int i = 0; i < row.dropped; ++i) {
                EXPECT_EQ(send(logger, encoding, row.form, row.call), 0);
                ASSERT_TRUE(m_agent.isIdle());
            }
            EXPECT_EQ(send(logger, encoding, row.form, row.call), 0);
            const Text record = with(kRecord, row.record);
            EXPECT_EQ(receive(encoding), encoding == kBinary ? with(record, row.binary) : record);
            EXPECT_EQ(logger.get_errmsg(), "");
        }
    }
}

TEST_F(ModuleRecordTest, RefusesInTheOrderOfItsTestsAndSendsNothing) {
    const Text fip33 = "&fip=" + Text(33, '1'), mip33 = "&mip=" + Text(33, '1'),
               sip33 = "&sip=" + Text(33, '1'), allBad = "sid=0&delay=-1&reqLen=-1" + mip33,
               error = "write_modulelog: ", fipError = error + "fip addr length invalid";
    enum Mode { kNew, kApplication, kModule };
    const struct {
        Mode mode;
        int rate;
        Form form;
        Text call;
        int code;
        Text text;
    } rows[] = {
        {kNew, 1, kMid, allBad + fip33, 15, fipError},
        {kNew, 1, kPlain, allBad, 1, "writemodulelog: is not init"},
        {kApplication, 1, kMid, allBad, 1, error + "init error"},
        {kModule, 255, kMid, allBad, 16, error + "delay[-1] mid[7] sid[0] ifid[9] error"},
        {kModule, 1, kMid, "mid=0", 16, error + "delay[30] mid[0] sid[8] ifid[9] error"},
        {kModule, 1, kFip, "ifid=-9", 16, error + "delay[30] mid[7] sid[8] ifid[-9] error"},
        {kModule, 255, kFip, "reqLen=-1" + mip33, 16, error + "reqLen[-1] rspLen[200] error"},
        {kModule, 255, kMid, "sid=1" + mip33 + sip33, 0, ""},
        {kModule, 1, kPlain, "sid=1" + mip33, 15, error + "ip addr length invalid"},
        {kModule, 1, kMid, "sid=1" + sip33, 15, error + "ip addr length invalid"},
    };
    for (const auto& row : rows) {
        for (const Encoding encoding : {kBinary, kText}) {
            SCOPED_TRACE(testing::Message() << "row " << &row - rows << ", " << encoding);
            setRates(row.rate, row.rate);
            CLogger logger(kUdp);
            if (row.mode != kNew) {
                ASSERT_EQ(row.mode == kModule ? logger.init(7) : logger.init("app"), 0);
            }
            EXPECT_EQ(send(logger, encoding, row.form, row.call), row.code);
            EXPECT_EQ(logger.get_errmsg(), row.text);
            EXPECT_TRUE(m_agent.isIdle());
        }
    }
}

TEST_F(ModuleRecordTest, KeepsConcurrentTextRecordsWholeAndApart) {
    const int kThreads = 8, kInFlight = 8, kRecords = 2000;
    CLogger loggers[4];
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(loggers[i].init(i + 1), 0);
    }
    const auto changesOf = [](int thread, int number) {
        const Text address = dotted(0x01000001U * thread + 0x100U * number);
        return "mid=" + std::to_string(thread % 4 + 1) + "&sid=" + std::to_string(thread + 1) +
               "&ifid=" + std::to_string(number + 1) + "&fip=" + address + "&mip=" + address +
               "&sip=" + address + "&result=" + std::to_string(thread % 2 * -number);
    };
    for (int first = 0; first < kRecords && !HasFailure(); first += kInFlight) {
        std::vector<std::thread> threads;
        std::multiset<Text> expected, received;
        for (int thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([&, thread] {
                for (int number = first; number < first + kInFlight; ++number) {
                    send(loggers[thread % 4], kText, kMid, changesOf(thread, number));
                }
            });
        }
        for (int i = 0; i < kThreads * kInFlight; ++i) {
            expected.insert(with(kRecord, changesOf(i % kThreads, first + i / kThreads)));
            received.insert(receive(kText));
        }
        EXPECT_EQ(received, expected);
        std::for_each(threads.begin(), threads.end(), std::mem_fn(&std::thread::join));
    }
}

}  // namespace
}  // namespace Quorvel
