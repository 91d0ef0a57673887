#include <fcntl.h>

#include "qvctl_shell.h"
#include "request_bytes.h"
#include "spool_file.h"

namespace Quorvel {
namespace {

const std::string kFile = "/data/qvagent/msgdat.dat";

std::string record(const std::string& body, const std::string& name = "app", int logType = 5,
                   uint32_t timestamp = 1400000000) {
    std::string bytes;
    appendSpoolRecord(bytes, requestBytes(name, body, logType, 3, timestamp));
    return bytes;
}

class QvctlSpool : public testing::Test {
 protected:
    QvctlSpool() {
        std::filesystem::remove_all("/data/qvagent");
        std::filesystem::create_directories("/data/qvagent");
    }

    static void store(const std::string& bytes) { std::ofstream(kFile) << bytes; }

    /// The files beside the fallback file, and itself.
    static ptrdiff_t fileCount() {
        return std::distance(std::filesystem::directory_iterator("/data/qvagent"), {});
    }
};

/// The bodies that the agent has read, in their order.
std::string bodies(const TestAgent& agent) {
    std::string all;
    for (const Request& request : agent.records()) {
        all += request.body + ' ';
    }
    return all;
}

bool hasRead(const TestAgent& agent, const std::string& expected) {
    return eventually([&] { return bodies(agent) == expected; });
}

TEST_F(QvctlSpool, TellsWhatAFileHolds) {
    store(record("one") + "junk" + record("two!", "b", 7, 1300000000) + record("three") + "x");
    EXPECT_EQ(run("qvctl spool info --json"),
              R"({"bytes":90,"records":3,"skippedBytes":5,"oldest":1300000000,)"
              R"("newest":1400000000,"applications":[)"
              R"({"application":"app","logType":5,"records":2,"bytes":8},)"
              R"({"application":"b","logType":7,"records":1,"bytes":4}]})"
              "\n");
    std::ofstream(kFile + ".replay") << record("left");
    EXPECT_EQ(run("TZ=UTC qvctl spool info"),
              "file: /data/qvagent/msgdat.dat\nsize: 90 bytes\nrecords: 3\n"
              "oldest: 2011-03-13 07:06:40\nnewest: 2014-05-13 16:53:20\n"
              "damage: 5 bytes that are no record: 4 at byte 28, 1 at byte 89\n"
              "app type 5: 2 records, 8 bytes\nb type 7: 1 records, 4 bytes\n"
              "beside it: /data/qvagent/msgdat.dat.replay: 29 bytes, "
              "of a replay that is at work or was ended\n");
    std::filesystem::remove(kFile);
    run("qvctl spool info", 0, "msgdat.dat: there is none\nbeside it: ");
}

TEST_F(QvctlSpool, CountsNoRecordThatIsInTheBodyOfAnother) {
    store(record("a") + record(record("b") + record("c") + record("d")) + "junk" + record("e"));
    run("qvctl spool info --json", 0, R"({"bytes":159,"records":3,"skippedBytes":4,)");
}

TEST_F(QvctlSpool, PrintsTheRecordsThatMeetEveryFilter) {
    store(record("a", "x", 1, 1000) + record("b", "y", 2, 1001) + record("c=d", "[y,z]", 9, 1002));
    const struct {
        std::string filters, bodies;
    } rows[] = {
        {"", "a b c=d "},
        {"--app y", "b "},
        {"--app [y,z]", "c=d "},
        {"--type 2", "b "},
        {"--type 2-9", "b c=d "},
        {"--since 1001 --type 1-2", "b "},
        {"--until '1970-01-01 00:16:41'", "a b "},
        {"--since 1970-01-01T00:17", ""},
        {"--since '1970-01-01 00'", "a b c=d "},
        {"--grep c=", "c=d "},
    };
    const std::string bodies = " | sed 's/.*\"body\":\"//; s/\".*/ /' | tr -d '\\n'";
    for (const auto& row : rows) {
        EXPECT_EQ(run("TZ=UTC qvctl spool cat " + row.filters + bodies), row.bodies) << row.filters;
    }
}

TEST_F(QvctlSpool, RefusesWhatItCannotDo) {
    const struct {
        std::string command, message;
        int code;
    } rows[] = {
        {"qvctl spool cat /data/none", "cannot open /data/none: No such file", 1},
        {"qvctl spool info /data", "/data is no regular file", 1},
        {"qvctl spool cat --type 128", "--type: neither", 2},
        {"qvctl spool cat --since noon", "--since: neither", 2},
        {"qvctl spool cat --since 2026-02-31", "--since: neither", 2},
        {"qvctl spool cat --since 26-01-31", "--since: neither", 2},
        {"qvctl spool replay --rate 0", "--rate: ", 2},
        {"qvctl spool replay --rate 0x10", "--rate: ", 2},
        {"qvctl spool", "subcommand is required", 2},
        {"qvctl spool replay", "no agent takes records over unix: No such file", 1},
        {"qvctl spool replay --transport tcp", "over tcp: Connection refused", 1},
        {"flock /data/qvagent qvctl spool replay", "another process has locked /data/qvagent", 1},
    };
    store(record("kept"));
    for (const auto& row : rows) {
        run(row.command, row.code, row.message);
        EXPECT_EQ(contents(kFile), record("kept"));
        EXPECT_EQ(fileCount(), 1) << row.command;
    }
}

TEST_F(QvctlSpool, ReplaysEveryFileThereIsAndKeepsTheDamage) {
    const std::string longBody(200000, 'x');
    store(record(longBody) + record("new"));
    std::ofstream(kFile + ".replay") << record("gone") + "junk" << record("left");
    std::ofstream(kFile + ".progress") << "00000000000000000029\n";
    const TestAgent agent(0);
    run("qvctl spool replay");
    EXPECT_TRUE(hasRead(agent, "left " + longBody + " new "));
    EXPECT_EQ(contents(kFile + ".damaged"), "junk");
    EXPECT_EQ(fileCount(), 1);
}

TEST_F(QvctlSpool, RepeatsNothingAfterCtrlC) {
    std::string stored, expected;
    for (int i = 0; i < 10000; ++i) {
        stored += record(std::to_string(i));
        expected += std::to_string(i) + ' ';
    }
    store(stored);
    TestAgent agent(0);
    agent.pause();
    Shell stopped("exec qvctl spool replay");
    EXPECT_TRUE(stopped.prints("waiting until the agent has read"));
    kill(stopped.pid(), SIGINT);
    agent.proceed();
    EXPECT_EQ(stopped.finish(), 1) << stopped.output();
    EXPECT_LT(bodies(agent).size(), expected.size());
    run("qvctl spool replay");
    EXPECT_TRUE(hasRead(agent, expected));
}

TEST_F(QvctlSpool, StopsInTheMiddleOfLongDamageAndKeepsTheFile) {
    store("");
    std::filesystem::resize_file(kFile, uint64_t{1} << 40);
    const TestAgent agent(0);
    Shell stopped("exec qvctl spool replay");
    EXPECT_TRUE(eventually([] { return access((kFile + ".progress").c_str(), F_OK) == 0; }));
    EXPECT_EQ(stopped.finish(SIGINT), 1) << stopped.output();
    EXPECT_EQ(access((kFile + ".replay").c_str(), F_OK), 0);
}

TEST_F(QvctlSpool, EndsWhereItCannotRemoveTheFile) {
    const std::string file = kFile + ".replay";
    std::ofstream(file) << record("once");
    const TestAgent agent(0);
    run("mount --bind " + file + ' ' + file);
    for (int i = 0; i < 2; ++i) {
        run("qvctl spool replay", 1, "cannot remove " + file + ": ");
    }
    run("umount " + file);
    EXPECT_TRUE(hasRead(agent, "once "));
}

TEST_F(QvctlSpool, SendsNothingWhereItCannotStoreItsProgress) {
    run("mount -t tmpfs -o size=4k full /data/qvagent");
    store(record("once"));
    const TestAgent agent(0);
    run("qvctl spool replay", 1, ".progress: No space left on device; make room on its disk first");
    run("mount -o remount,size=8k /data/qvagent && qvctl spool replay; umount /data/qvagent");
    EXPECT_TRUE(hasRead(agent, "once "));
}

TEST_F(QvctlSpool, WaitsForTheAgentIfAskedTo) {
    store(record("a") + record("b"));
    Shell replay("exec qvctl spool replay --wait --rate 4");
    TestAgent agent(0);
    EXPECT_TRUE(eventually([&] { return agent.recordCount() == 1; }));
    agent.cut();
    EXPECT_EQ(replay.finish(), 0) << replay.output();
    EXPECT_TRUE(hasRead(agent, "a b "));
}

TEST_F(QvctlSpool, NamesTheRecordThatTheAgentRefuses) {
    const std::string refused = record(std::string((64 << 20) + 1, 'x'));
    store(record("taken") + refused);
    const Listen agent;
    run("qvctl spool replay", 1,
        "the " + std::to_string(refused.size()) + " bytes at byte 30 of " + kFile + ".replay");
}

TEST_F(QvctlSpool, LeavesAFileAloneWhileAnApplicationHasItOpen) {
    store(record("early"));
    const int fd = open(kFile.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    const TestAgent agent(0);
    Shell replay("exec qvctl spool replay");
    EXPECT_TRUE(replay.prints("until no process has " + kFile + ".replay open for writing"));
    EXPECT_EQ(bodies(agent), "");
    EXPECT_EQ(write(fd, record("late").data(), record("late").size()), 29);
    close(fd);
    EXPECT_EQ(replay.finish(), 0);
    EXPECT_TRUE(hasRead(agent, "early late "));
}

}  // namespace
}  // namespace Quorvel
