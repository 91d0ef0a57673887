#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <list>
#include <random>
#include <string>
#include <utility>

#include "request_bytes.h"
#include "test_agent.h"

namespace {

const char* const kSocketPath = Quorvel::kUnixAddress.sun_path;

std::string contents(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A shell that runs qvctl, with its output and its messages in files.
class Shell {
 public:
    explicit Shell(const std::string& script) {
        static int runs = 0;
        setenv("PATH", QVCTL_DIRECTORY ":/usr/bin:/bin", 1);
        m_output = "/data/output" + std::to_string(++runs);
        const std::string command = "exec >" + m_output + " 2>" + m_output + ".err; " + script;
        if ((m_pid = fork()) == 0) {
            execl("/bin/bash", "bash", "-c", command.c_str(), nullptr);
            _exit(127);
        }
    }
    ~Shell() { m_pid > 0 ? finish(SIGKILL) : 0; }

    std::string output() const { return contents(m_output); }
    std::string messages() const { return contents(m_output + ".err"); }
    bool prints(const std::string& text) const { return awaits(m_output, text); }
    bool says(const std::string& text) const { return awaits(m_output + ".err", text); }
    int finish(int signal = 0) {
        int status = 0;
        kill(m_pid, signal);
        EXPECT_TRUE(Quorvel::eventually([&] { return waitpid(m_pid, &status, WNOHANG) != 0; }));
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    long peakKilobytes() const {
        const std::string status = contents("/proc/" + std::to_string(m_pid) + "/status");
        return std::stol(status.substr(status.find("VmHWM:") + 6));
    }

 private:
    static bool awaits(const std::string& path, const std::string& text) {
        return Quorvel::eventually([&] { return contents(path).find(text) != std::string::npos; });
    }

    std::string m_output;
    pid_t m_pid;
};

class Client {
 public:
    explicit Client(const std::string& transport) {
        const bool isUnix = transport == "unix";
        const void* address =
            isUnix ? static_cast<const void*>(&Quorvel::kUnixAddress) : &Quorvel::kLoopbackAddress;
        m_fd = socket(isUnix ? AF_UNIX : AF_INET, transport == "udp" ? SOCK_DGRAM : SOCK_STREAM, 0);
        EXPECT_EQ(0, connect(m_fd, static_cast<const sockaddr*>(address),
                             isUnix ? sizeof(sockaddr_un) : sizeof(sockaddr_in)));
    }
    ~Client() { close(m_fd); }
    void send(const std::string& bytes) const {
        ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    /// Whether the agent closes the connection once it has seen this side's end.
    bool isClosedByAgent() const {
        shutdown(m_fd, SHUT_WR);
        char byte;
        pollfd entry{m_fd, POLLIN, 0};
        return poll(&entry, 1, 60000) == 1 && recv(m_fd, &byte, 1, 0) <= 0;
    }

 private:
    int m_fd;
};

TEST(QvctlListen, PrintsALineForEachRecordAndASummary) {
    const struct {
        std::string transport;
        std::string command;
        std::string request;
        std::string output;
        std::string summary;
    } rows[] = {
        {"unix", "exec qvctl listen", requestBytes("app", "h\xC3\xA9\n", 5),
         R"({"transport":"unix","application":"app","command":3,"logType":5,)"
         R"("timestamp":1400000000,"body":"hé\n"})",
         "qvctl: app type 5: 1 records, 4 bytes\n"},
        {"udp", "exec qvctl listen",
         requestBytes("app",
                      "\xFF"
                      "ab",
                      0, 3, 0),
         R"({"transport":"udp","application":"app","command":3,"logType":0,)"
         R"("timestamp":0,"body":"/2Fi","bodyEncoding":"base64"})",
         "qvctl: app type 0: 1 records, 3 bytes\n"},
        {"tcp", "exec qvctl listen", requestBytes("app\xFF", "\xFE", 127, 6, ~0u),
         R"({"transport":"tcp","application":"YXBw/w==","applicationEncoding":"base64",)"
         R"("command":6,"logType":127,"timestamp":4294967295,"body":"/g==",)"
         R"("bodyEncoding":"base64"})",
         "qvctl: app\\xFF type 127: 1 records, 1 bytes\n"},
        {"tcp", "exec script -qec 'exec qvctl listen --count 1 2>&3' /dev/null 3>&2",
         requestBytes("a\x1B[2Jp", "\xC3\xA9\x7F\xC2\x9B\\", 5) + requestBytes("app", "more"),
         " tcp a\\x1B[2Jp type 5 text: \xC3\xA9\\x7F\\xC2\\x9B\\x5C\r",
         "qvctl: a\\x1B[2Jp type 5: 1 records, 6 bytes\n"},
    };
    for (const auto& row : rows) {
        Shell listen(row.command);
        ASSERT_TRUE(listen.says("listening on udp 127.0.0.1:20005\n"));
        Client(row.transport).send(row.request);
        EXPECT_TRUE(listen.prints(row.output + "\n")) << listen.output();
        EXPECT_EQ(listen.finish(row.command.find("--count") == std::string::npos ? SIGINT : 0), 0);
        EXPECT_TRUE(listen.says(row.summary + "qvctl: 1 records in all, 0 malformed inputs\n"));
        EXPECT_NE(access(kSocketPath, F_OK), 0);
    }
}

TEST(QvctlListen, SurvivesHostileInputInBoundedMemory) {
    std::string randomBytes(50000, 'G');
    std::generate(randomBytes.begin() + 1, randomBytes.end(), std::mt19937(1));
    const std::pair<std::string, std::string> inputs[] = {
        {randomBytes, "command 71 is neither 3 nor 6\n"},
        {requestBytes("app", "hello").substr(0, 25), "ended inside a request\n"},
        {headerBytes(3, 0x80, 0, 2, 9, 0, ~0u), "announced body of 4294967295 bytes"},
    };
    Shell listen("exec qvctl listen");
    ASSERT_TRUE(listen.says("listening on udp"));
    const long peakBefore = listen.peakKilobytes();
    const Client waiting("tcp");
    waiting.send(headerBytes(3, 0x80, 0, 2, 9, 0, 64 << 20) + std::string(100, 'x'));
    std::string messages = listen.messages();
    for (const std::string transport : {"unix", "tcp", "udp"}) {
        for (const auto& [bytes, reason] : inputs) {
            const Client client(transport);
            client.send(bytes);
            EXPECT_TRUE(transport == "udp" || client.isClosedByAgent());
            const std::string body = "after " + transport + std::to_string(bytes.size());
            Client(transport).send(requestBytes("app", body));
            EXPECT_TRUE(listen.prints(body));
            const std::string message = listen.messages().substr(messages.size());
            EXPECT_EQ(message.find("qvctl: " + transport), 0u) << message;
            EXPECT_NE(message.find(reason), std::string::npos) << message;
            EXPECT_EQ(std::count(message.begin(), message.end(), '\n'), 1) << message;
            messages += message;
        }
    }
    EXPECT_LT(listen.peakKilobytes() - peakBefore, 16 << 10);
    EXPECT_EQ(listen.finish(SIGTERM), 0);
    EXPECT_TRUE(listen.says("9 records in all, 9 malformed inputs\n"));
}

TEST(QvctlListen, TakesOverAStaleSocketButNothingElse) {
    Shell atFile(
        "mkdir -p /data/container2host; echo precious >/data/container2host/cqv; exec qvctl listen "
        "--unix");
    EXPECT_EQ(atFile.finish(), 1);
    EXPECT_TRUE(atFile.says("not a socket"));
    EXPECT_EQ(contents(kSocketPath), "precious\n");
    Shell killed("rm /data/container2host/cqv; exec qvctl listen --unix");
    ASSERT_TRUE(killed.says("listening on unix"));
    EXPECT_EQ(killed.finish(SIGKILL), -SIGKILL);
    EXPECT_EQ(access(kSocketPath, F_OK), 0);
    Shell listen("exec qvctl listen");
    ASSERT_TRUE(listen.says("listening on udp"));
    for (const std::string transport : {"unix", "tcp", "udp"}) {
        Shell second("exec qvctl listen --" + transport);
        EXPECT_EQ(second.finish(), 1);
        EXPECT_TRUE(second.says(": another process serves it\n"));
        Client(transport).send(requestBytes("app", "still served by " + transport));
        EXPECT_TRUE(listen.prints("still served by " + transport));
    }
}

TEST(QvctlListen, EndsWithAMessageWhenNobodyReadsItsOutputAnyMore) {
    Shell listen("exec qvctl listen > >(true)");
    EXPECT_EQ(listen.finish(), 1);
    EXPECT_TRUE(listen.says("qvctl: standard output was closed\n"));
}

TEST(QvctlListen, LetsConnectionsWaitWhileItIsOutOfDescriptors) {
    Shell listen("ulimit -n 16; exec qvctl listen --tcp");
    ASSERT_TRUE(listen.says("listening on tcp"));
    // What a sanitizer checks for the first time needs descriptors of its own.
    Client("tcp").send(requestBytes("app", "before"));
    EXPECT_TRUE(listen.prints("before"));
    std::list<Client> crowd;
    for (int i = 0; i < 30; ++i) {
        crowd.emplace_back("tcp");
    }
    EXPECT_TRUE(listen.says("new connections have to wait: Too many open files\n"));
    crowd.front().send(requestBytes("app", "meanwhile"));
    EXPECT_TRUE(listen.prints("meanwhile"));
    crowd.back().send(requestBytes("app", "afterwards"));
    crowd.erase(crowd.begin(), std::prev(crowd.end()));
    EXPECT_TRUE(listen.prints("afterwards"));
}

TEST(QvctlSend, ReportsWhatBecameOfTheRecords) {
    const struct {
        std::string arguments;
        int status;
        std::string report;   // accepted, turned over, lost
        std::string message;  // on standard error
        std::string record;   // the last one at the agent; no agent if empty
    } rows[] = {
        {"'[app]' '[a,b]' --type 110 --time 7", 0, "1 0 0", "",
         R"("unix","application":"[app]","command":3,"logType":110,"timestamp":7,"body":"[a,b]"})"},
        {"app --transport tcp --time 0 <<<$'a\n\nb'", 1, "2 0 1",
         "qvctl: record 2 lost with code 2: write_baselog: data empty\n",
         R"("tcp","application":"app","command":3,"logType":0,"timestamp":0,"body":"b"})"},
        {"app --transport udp --time 8 -- --type", 0, "1 0 0", "",
         R"("udp","application":"app","command":3,"logType":0,"timestamp":8,"body":"--type"})"},
        {"app a b ''", 1, "0 2 1", "qvctl: record 3 lost with code 2: ", ""},
        {"app </", 1, "", "qvctl: cannot read standard input\n", ""},
        {"''", 1, "", "qvctl: init: length of logName is 0\n", ""},
        {"app a --type 111", 2, "", "--type: ", ""},
        {"app a --time 4294967296", 2, "", "Could not convert: --time ", ""},
    };
    for (const auto& row : rows) {
        Shell listen(row.record.empty() ? "" : "exec qvctl listen");
        ASSERT_TRUE(row.record.empty() || listen.says("listening on udp"));
        Shell send("set -o pipefail; qvctl send " + row.arguments +
                   " | sed 's/.*: //' | paste -sd ' '");
        EXPECT_EQ(send.finish(), row.status) << row.arguments;
        EXPECT_EQ(send.output(), row.report + "\n") << row.arguments;
        EXPECT_EQ(send.messages().find(row.message), 0u) << send.messages();
        EXPECT_TRUE(listen.prints(row.record)) << listen.output();
        EXPECT_EQ(listen.finish(row.record.empty() ? 0 : SIGTERM), 0);
    }
}

}  // namespace
