#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <random>

#include "request_bytes.h"
#include "test_agent.h"

namespace Quorvel {
namespace {

const std::string kTransports[] = {"unix", "tcp", "udp"};

std::string contents(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A shell that runs qvctl, with all that it prints in a file.
class Shell {
 public:
    explicit Shell(const std::string& script) {
        static int runs = 0;
        m_file = "/data/output" + std::to_string(++runs);
        const std::string command =
            "PATH=" QVCTL_DIRECTORY ":$PATH; exec >" + m_file + " 2>&1; " + script;
        if ((m_pid = fork()) == 0) {
            execl("/bin/bash", "bash", "-c", command.c_str(), nullptr);
            _exit(127);
        }
    }
    ~Shell() { m_pid > 0 ? finish(SIGKILL) : 0; }

    std::string output() const { return contents(m_file); }
    bool prints(const std::string& text) const {
        return eventually([&] { return output().find(text) != std::string::npos; });
    }
    int finish(int signal = 0) {
        int status = 0;
        kill(m_pid, signal);
        EXPECT_TRUE(eventually([&] { return waitpid(m_pid, &status, WNOHANG) != 0; }));
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    long peakKilobytes() const {
        const std::string status = contents("/proc/" + std::to_string(m_pid) + "/status");
        return std::stol(status.substr(status.find("VmHWM:") + 6));
    }

 private:
    std::string m_file;
    pid_t m_pid;
};

/// The socket over which `bytes` were sent.
int sendTo(const std::string& transport, const std::string& bytes) {
    const bool isUnix = transport == "unix";
    const auto* address = isUnix ? reinterpret_cast<const sockaddr*>(&kUnixAddress)
                                 : reinterpret_cast<const sockaddr*>(&kLoopbackAddress);
    const int type = transport == "udp" ? SOCK_DGRAM : SOCK_STREAM;
    const int fd = socket(address->sa_family, type | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd, address, isUnix ? sizeof(kUnixAddress) : sizeof(kLoopbackAddress)), 0);
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return fd;
}

TEST(QvctlListen, PrintsALineForEachRecordAndASummary) {
    const std::string terminal =
        "script -qec 'qvctl listen --count 1 2>&3' /dev/null 3>&2 >/data/tty && cat /data/tty";
    const std::tuple<int, std::string, std::string, std::string, std::string> rows[] = {
        {SIGINT, "exec qvctl listen", requestBytes("app", "h\xC3\xA9\n", 5),
         R"("application":"app","command":3,"logType":5,"timestamp":1400000000,"body":"hé\n"})",
         "qvctl: app type 5: 1 records, 4 bytes\n"},
        {SIGINT, "exec qvctl listen", requestBytes("app\xFF", "\xFF\x61\x62", 127, 6, ~0u),
         R"("application":"YXBw/w==","applicationEncoding":"base64","command":6,"logType":127,)"
         R"("timestamp":4294967295,"body":"/2Fi","bodyEncoding":"base64"})",
         "qvctl: app\\xFF type 127: 1 records, 3 bytes\n"},
        {0, terminal, requestBytes("a\x1B[2Jp", "\xC3\xA9\x7F\xC2\x9B\\", 5),
         " a\\x1B[2Jp type 5 text: \xC3\xA9\\x7F\\xC2\\x9B\\x5C\r",
         "qvctl: a\\x1B[2Jp type 5: 1 records, 6 bytes\n"},
    };
    for (const auto& [signal, command, request, line, summary] : rows) {
        Shell listen(command);
        ASSERT_TRUE(listen.prints("listening on udp 127.0.0.1:20005\n"));
        close(sendTo("tcp", request));
        EXPECT_TRUE(listen.prints(line + "\n"));
        EXPECT_EQ(listen.finish(signal), 0);
        EXPECT_TRUE(listen.prints(summary + "qvctl: 1 records in all, 0 malformed inputs\n"));
        EXPECT_NE(access(kUnixAddress.sun_path, F_OK), 0);
    }
}

TEST(QvctlListen, SurvivesHostileInputInBoundedMemory) {
    std::string randomBytes(50000, 'G');
    std::generate(randomBytes.begin() + 1, randomBytes.end(), std::mt19937(1));
    const std::string header("\3\x80\0\0\0\2\0\x9\0\0\0\0", 12);
    const std::pair<std::string, std::string> inputs[] = {
        {randomBytes, "command 71 is neither 3 nor 6\n"},
        {requestBytes("app", "hello").substr(0, 25), "ended inside a request\n"},
        {header + bigEndian(~0u, 4), "announced body of 4294967295 bytes"},
        {header + bigEndian((64 << 20) + 1, 4), "is longer than 67108864\n"},
        {header + bigEndian(1, 4), "body of 1 bytes has no room for the name's length\n"},
        {header + bigEndian(5, 4) + bigEndian(4, 2), "has no room for a name of 4\n"},
        {"\6\x7F", "log type byte 127 lacks bit 7\n"},
        {std::string("\3\x80\0\0\0\3", 6), "version 3 is not 2\n"},
        {std::string("\3\x80\0\0\0\2\0\x8", 8), "flag 8 is neither 1 nor 9\n"},
    };
    Shell listen("exec qvctl listen");
    ASSERT_TRUE(listen.prints("listening on udp"));
    const long peakBefore = listen.peakKilobytes();
    close(sendTo("udp", requestBytes("app", "hello") + "x"));
    EXPECT_TRUE(listen.prints("1 bytes follow the request\n"));
    const int waiting = sendTo("tcp", header + bigEndian(64 << 20, 4) + "some bytes");
    for (const std::string& transport : kTransports) {
        for (const auto& [bytes, reason] : inputs) {
            const size_t before = listen.output().size();
            const int fd = sendTo(transport, bytes);
            char byte;
            shutdown(fd, SHUT_WR);
            EXPECT_TRUE(transport == "udp" || recv(fd, &byte, 1, 0) <= 0) << "not closed";
            close(fd);
            close(sendTo(transport, requestBytes("app", "next")));
            EXPECT_TRUE(eventually([&] { return listen.output().find("next", before) + 1 != 0; }));
            const std::string output = listen.output().substr(before);
            EXPECT_EQ(output.find("qvctl: " + transport), 0U) << output;
            EXPECT_NE(output.find(reason), std::string::npos) << output;
            EXPECT_LE(std::count(output.begin(), output.end(), '\n'), 2) << output;
        }
    }
    EXPECT_LT(listen.peakKilobytes() - peakBefore, 16 << 10);
    EXPECT_EQ(listen.finish(SIGTERM), 0);
    EXPECT_TRUE(listen.prints("27 records in all, 28 malformed inputs\n"));
    close(waiting);
}

TEST(QvctlListen, TakesOverAStaleSocketButNothingElse) {
    const std::string path = kUnixAddress.sun_path;
    Shell file("mkdir -p /data/container2host; echo mine >" + path + "; exec qvctl listen --unix");
    EXPECT_EQ(file.finish(), 1);
    EXPECT_TRUE(file.prints("not a socket"));
    EXPECT_EQ(contents(path), "mine\n");
    Shell killed("rm " + path + "; exec qvctl listen --unix");
    ASSERT_TRUE(killed.prints("listening on unix"));
    EXPECT_EQ(killed.finish(SIGKILL) + access(path.c_str(), F_OK), -1);
    Shell listen("exec qvctl listen");
    ASSERT_TRUE(listen.prints("listening on udp"));
    for (const std::string& transport : kTransports) {
        Shell second("exec qvctl listen --" + transport);
        EXPECT_EQ(second.finish(), 1);
        EXPECT_TRUE(second.prints(": another process serves it\n"));
        close(sendTo(transport, requestBytes("app", "still served by " + transport)));
        EXPECT_TRUE(listen.prints("still served by " + transport));
    }
}

TEST(QvctlSend, ReportsWhatBecameOfTheRecords) {
    // The arguments, the exit code, what it says, and the end of what the agent prints, if any.
    const std::tuple<std::string, int, std::string, std::string> rows[] = {
        {"'[app]' '[a,b]' --type 110 --time 7", 0,
         "accepted: 1\nturned over to the fallback file: 0\nlost: 0\n",
         R"("unix","application":"[app]","command":3,"logType":110,"timestamp":7,"body":"[a,b]"})"},
        {"app --transport tcp --time 0 <<<$'a\n\nb'", 1,
         "qvctl: record 2 lost with code 2: write_baselog: data empty\n"
         "accepted: 2\nturned over to the fallback file: 0\nlost: 1\n",
         R"("tcp","application":"app","command":3,"logType":0,"timestamp":0,"body":"b"})"},
        {"app --transport udp -- --type", 0, "accepted: 1\n", R"("body":"--type"})"},
        {"app a b ''", 1, "accepted: 0\nturned over to the fallback file: 2\nlost: 1\n", ""},
        {"'' a", 1, "qvctl: init: length of logName is 0\n", ""},
        {"app a --type 111", 2, "--type: ", ""},
        {"app a --time 4294967296", 2, "Could not convert: --time ", ""},
    };
    for (const auto& [arguments, code, report, record] : rows) {
        Shell listen(record.empty() ? "" : "exec qvctl listen");
        ASSERT_TRUE(record.empty() || listen.prints("listening on udp"));
        Shell send("exec qvctl send " + arguments);
        EXPECT_EQ(send.finish(), code) << arguments;
        EXPECT_NE(send.output().find(report), std::string::npos) << send.output();
        EXPECT_TRUE(listen.prints(record)) << listen.output();
    }
}

}  // namespace
}  // namespace Quorvel
