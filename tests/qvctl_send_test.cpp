#include "qvctl_shell.h"

namespace Quorvel {
namespace {

TEST(QvctlSend, ReportsWhatBecameOfTheRecords) {
    const std::tuple<std::string, int, std::string, std::string> rows[] = {
        {"'[app]' '[a,b]' --type 110 --time 7", 0,
         "accepted: 1\nturned over to the fallback file: 0\nlost: 0\n",
         R"("unix","application":"[app]","command":3,"logType":110,"timestamp":7,"body":"[a,b]"})"},
        {"app a '' --transport tcp --time 0", 1,
         "qvctl: record 2 lost with code 2: write_baselog: data empty\n"
         "accepted: 1\nturned over to the fallback file: 0\nlost: 1\n",
         R"("tcp","application":"app","command":3,"logType":0,"timestamp":0,"body":"a"})"},
        {"app <<<$'a\n\nb'", 0, "accepted: 2\n", R"("body":"b"})"},
        {"app --keep-empty <<<$'a\n'", 0, "accepted: 2\n", R"("body":""})"},
        {"app a b --repeat 3 --rate 1000", 0, "accepted: 6\n", R"("body":"b"})"},
        {"app --transport udp -- --type", 0, "accepted: 1\n", R"("body":"--type"})"},
        {"-- module stat", 0, "accepted: 1\n", R"("application":"module",)"},
        {"app --binary <(printf '\\0\\377')", 0, "accepted: 1\n",
         R"("command":6,"logType":0,"timestamp":)"},
        {"module 7 --retval -5", 0, "accepted: 1\n", R"("iRetVal":-5,)"},
        {"stat app login ok=5 bad=-1 --type 9", 0, "accepted: 1\n",
         R"("body":"login&bad=-1&ok=5","fields":{"data":"login","bad":"-1","ok":"5"}})"},
        {"app --binary /$'\\e'", 1, "qvctl: cannot read /\\x1B: No such file", ""},
        {"app --binary /data", 1, "qvctl: cannot read /data: Is a directory\n", ""},
        {"'' a", 1, "qvctl: init: length of logName is 0\n", ""},
    };
    for (const auto& [arguments, code, report, received] : rows) {
        const Listen listen;
        run("qvctl send " + arguments, code, report);
        EXPECT_TRUE(listen.prints(received)) << listen.output();
    }
}

TEST(QvctlSend, SaysWhetherTheFallbackFileTookWhatWasTurnedOver) {
    const std::string file = "/data/qvagent/msgdat.dat";
    const std::string withoutPrivileges = "setpriv --bounding-set -all ";
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"qvctl send app a b", "file: 0\nlost: 2\n", "/data/qvagent: No such file"},
        {"mkdir /data/qvagent; qvctl send app a b", "file: 2\nlost: 0\n",
         "grew by the 52 bytes turned over\n"},
        {"qvctl send stat app x n=7", "file: 1\nlost: 0\n", "grew by the 30 bytes"},
        {"chmod 400 " + file + ";" + withoutPrivileges + "qvctl send app a", "file: 0\nlost: 1\n",
         "took none of 1 records turned over: " + file + ": Permission denied\n"},
        {"truncate -s 1000000001 " + file + "; qvctl send stat app x n=7", "file: 0\nlost: 1\n",
         "the file is full\n"},
        {"qvctl send app a", "file: 0\nlost: 1\n", "the file is full\n"},
    };
    for (const auto& [script, counts, reason] : rows) {
        const std::string output = run(script, 1, counts);
        EXPECT_NE(output.find(reason), std::string::npos) << output;
    }
}

TEST(QvctlSend, ReportsAtAnInterrupt) {
    const Listen listen;
    Shell send("mkfifo /data/fifo; exec 3<>/data/fifo; echo x >&3; exec qvctl send app <&3");
    ASSERT_TRUE(listen.prints("\"body\":\"x\""));
    EXPECT_EQ(send.finish(SIGINT), 0);
    EXPECT_EQ(send.output().find("accepted: 1\n"), 0U) << send.output();
}

TEST(QvctlSend, FailsWhenStoppedBeforeAllWasWritten) {
    for (const std::string records : {"x y", "x --repeat 2", "<<<$'x\ny'"}) {
        const Listen listen;
        Shell send("exec qvctl send --rate 1 app " + records);
        ASSERT_TRUE(listen.prints("\"body\":\"x\""));
        EXPECT_EQ(send.finish(SIGTERM), 1);
        EXPECT_EQ(send.output().find("accepted: 1\n"), 0U) << send.output();
    }
}

TEST(Qvctl, EndsWithTwoOnWrongUsageAndNamesIt) {
    const std::pair<std::string, std::string> rows[] = {
        {"frob", "unknown verb: frob; qvctl --help"},
        {"--frob", "unknown option: --frob; qvctl --help"},
        {"spool frob", "unknown verb: frob; qvctl spool --help"},
        {"listen --count $'\\e'", "\\x1B is no number"},
        {"listen --count 0", "0 is no number from 1 to 9223372036854775807\n"},
        {"listen --count 9223372036854775808", "--count: 9223372036854775808 is no number"},
        {"listen --mode 888", "888 is no mode of 0 to 0777"},
        {"send", "NAME is required"},
        {"send app a --type 111", "--type: 111 is no number from 0 to 110\n"},
        {"send app a --time 4294967296", "--time: 4294967296 is no number"},
        {"send app a --binary file", "TEXT excludes --binary"},
        {"send app --binary ''", "--binary: the name is empty\n"},
        {"send module 7 --fip 1.2.3", "--fip: 1.2.3 is no IPv4 address\n"},
        {"send stat app x a=2147483648", "a: 2147483648 is no number"},
        {"send stat app x a=1 a=2", "a is given twice\n"},
        {"send stat app x a", "a is not NAME=INTEGER\n"},
        {"send stat app x =5", "=5 has no name\n"},
        {"send stat app $(printf %01019d) ab=5", "would have 1024 bytes and be cut at 1023\n"},
    };
    for (const auto& [arguments, message] : rows) {
        run("qvctl " + arguments, 2, message);
    }
}

TEST(Qvctl, SaysThatAStandardStreamIsClosedOrFull) {
    run("qvctl --help >&-", 1, "standard output is closed\n");
    run("qvctl listen --udp >&-", 1, "standard output is closed\n");
    run("qvctl send app a >/dev/full", 1, "No space left on device\n");
    run("qvctl send app <&-", 1, "cannot read standard input: Bad file descriptor\n");
}

TEST(Qvctl, KeepsSocketsOffTheNumbersOfClosedStreams) {
    const Shell listen("exec qvctl listen <&- 2>&-");
    for (const std::string stream : {"0", "2"}) {
        const std::string link = "/proc/" + std::to_string(listen.pid()) + "/fd/" + stream;
        std::error_code missing;
        EXPECT_TRUE(
            eventually([&] { return std::filesystem::read_symlink(link, missing) == "/"; }));
    }
}

}  // namespace
}  // namespace Quorvel
