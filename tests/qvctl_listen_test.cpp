#include <regex>

#include "qvctl_shell.h"
#include "request_bytes.h"

namespace Quorvel {
namespace {

const std::string kTransports[] = {"unix", "tcp", "udp"};

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
    const std::string onTerminal =
        "script -qec 'qvctl listen --count 1 2>&3' /dev/null 3>&2 >/data/tty && cat /data/tty";
    const struct {
        int signal;
        std::string command, request, line, summary;
    } rows[] = {
        {SIGINT, "exec qvctl listen", requestBytes("app", "h\xC3\xA9\n", 5),
         R"("application":"app","command":3,"logType":5,"timestamp":1400000000,"body":"hé\n"})",
         "qvctl: app type 5: 1 records, 4 bytes\n"},
        {SIGINT, "exec qvctl listen", requestBytes("app\xFF", "\xFF\x61\x62", 127, 6, ~0u),
         R"("application":"YXBw/w==","applicationEncoding":"base64","command":6,"logType":127,)"
         R"("timestamp":4294967295,"body":"/2Fi","bodyEncoding":"base64"})",
         "qvctl: app\\xFF type 127: 1 records, 3 bytes\n"},
        {0, "export NO_COLOR=1;" + onTerminal, requestBytes("a\x1B[2Jp", "é\x7F\xC2\x9B\\", 5),
         " a\\x1B[2Jp type 5 text: é\\x7F\\xC2\\x9B\\x5C\r",
         "qvctl: a\\x1B[2Jp type 5: 1 records, 6 bytes\n"},
        {0, "unset NO_COLOR;" + onTerminal, requestBytes("app", "\u202E\u200Bx\xE2", 5),
         "\x1B[1;36mapp\x1B[0m type 5 text: \\xE2\\x80\\xAE\\xE2\\x80\\x8Bx\\xE2\r",
         "qvctl: app type 5: 1 records, 8 bytes\n"},
    };
    for (const auto& row : rows) {
        Shell listen(row.command);
        ASSERT_TRUE(listen.prints("listening on udp 127.0.0.1:20005\n"));
        close(sendTo("tcp", row.request));
        EXPECT_TRUE(listen.prints(row.line + "\n"));
        EXPECT_EQ(listen.finish(row.signal), 0);
        EXPECT_TRUE(listen.prints(row.summary + "qvctl: 1 records in all, 0 malformed inputs\n"));
        EXPECT_NE(access(kUnixAddress.sun_path, F_OK), 0);
    }
}

TEST(QvctlListen, SurvivesHostileInputInBoundedMemory) {
    const std::string header("\3\x80\0\0\0\2\0\x9\0\0\0\0", 12);
    const std::pair<std::string, std::string> inputs[] = {
        {std::string(50000, 'G'), "command 71 is neither 3 nor 6"},
        {requestBytes("app", "hello").substr(0, 25), "ended inside a request"},
        {header + bigEndian(~0u, 4), "announced body of 4294967295 bytes"},
        {header + bigEndian((64 << 20) + 1, 4), "is longer than 67108864"},
        {header + bigEndian(1, 4), "body of 1 bytes has no room for the name's length"},
        {header + bigEndian(5, 4) + bigEndian(4, 2), "has no room for a name of 4"},
        {"\6\x7F", "log type byte 127 lacks bit 7"},
        {std::string("\3\x80\0\0\0\3", 6), "version 3 is not 2"},
        {std::string("\3\x80\0\0\0\2\0\x8", 8), "flag 8 is neither 1 nor 9"},
    };
    Listen listen;
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
            const std::regex lines("qvctl: " + transport + ".*" + reason + ".*\n.*next.*\n?");
            const std::string output = listen.output().substr(before);
            EXPECT_TRUE(std::regex_match(output, lines)) << output;
        }
    }
    EXPECT_LT(listen.peakKilobytes() - peakBefore, 16 << 10);
    EXPECT_EQ(listen.finish(SIGTERM), 0);
    EXPECT_TRUE(listen.prints("27 records in all, 28 malformed inputs\n"));
    close(waiting);
}

TEST(QvctlListen, TakesOverAStaleSocketButNothingElse) {
    const std::string path = kUnixAddress.sun_path;
    run("mkdir -p /data/container2host; echo mine >" + path + "; qvctl listen", 1, "not a socket");
    EXPECT_EQ(contents(path), "mine\n");
    std::filesystem::remove(path);
    const std::string directory = "/data/container2host";
    run("flock " + directory + " qvctl listen", 1, "another process has locked " + directory);
    EXPECT_EQ(Listen().finish(SIGKILL) + access(path.c_str(), F_OK), -1);
    const Listen listen;
    for (const std::string& transport : kTransports) {
        run("qvctl listen --" + transport, 1, ": another process serves it\n");
        close(sendTo(transport, requestBytes("app", "still served by " + transport)));
        EXPECT_TRUE(listen.prints("still served by " + transport));
    }
}

TEST(QvctlListen, SplitsTheFieldsOfTextsOnly) {
    std::string tooMany = "a=";
    for (int i = 0; i < 65536; ++i) {
        tooMany += "&" + std::to_string(i) + "=";
    }
    const std::pair<std::string, std::string> rows[] = {
        {"a=1&b%3D=x%26%0Ay", R"(,"fields":{"a":"1","b=":"x&\ny"}})"},
        {"login&ok=1", R"(,"fields":{"data":"login","ok":"1"}})"},
        {"a=%zz%3", R"(,"fields":{"a":"%zz%3"}})"},
        {"a=1&b", R"("a=1&b"})"},
        {"a=1&a=2", R"("a=1&a=2"})"},
        {"no pair", R"("no pair"})"},
        {"a=\xFF", R"("bodyEncoding":"base64"})"},
        {tooMany, "&65535=\"}"},
    };
    const Listen listen;
    for (const auto& [body, end] : rows) {
        close(sendTo("unix", requestBytes("app", body)));
        EXPECT_TRUE(listen.prints(end + "\n")) << body;
    }
}

TEST(QvctlListen, PrintsWhatTheSocketsHoldBeforeItEnds) {
    std::string thousand;
    for (int i = 0; i < 1000; ++i) {
        thousand += requestBytes("app", "x");
    }
    Listen listen(">/dev/null");
    const int accepted = sendTo("unix", requestBytes("app", "x"));
    kill(listen.pid(), SIGSTOP);
    send(accepted, thousand.data(), thousand.size(), 0);
    for (const std::string& transport : kTransports) {
        close(sendTo(transport, requestBytes("app", "x")));
    }
    kill(listen.pid(), SIGTERM);
    EXPECT_EQ(listen.finish(SIGCONT), 0);
    EXPECT_TRUE(listen.prints("1004 records in all"));
    close(accepted);
}

TEST(QvctlListen, EndsSoonWhateverArrivesAndWhoeverReads) {
    const std::string options[] = {"3<>/data/unread >/data/unread", ">/dev/null",
                                   "--slow 100000 >/dev/null", "--stall >/dev/null"};
    run("mkfifo /data/unread");
    for (const std::string& option : options) {
        Listen listen(option);
        const Shell flood("exec qvctl send app a=%%%% --repeat 1000000000");
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const auto start = std::chrono::steady_clock::now();
        listen.finish(SIGINT);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << option;
        EXPECT_TRUE(listen.prints("records in all"));
    }
}

TEST(QvctlListen, EndsAtOnceAtASecondSignalOfTheOtherKind) {
    Listen listen;
    for (const int signal : {SIGSTOP, SIGINT, SIGTERM}) {
        kill(listen.pid(), signal);
    }
    EXPECT_EQ(listen.finish(SIGCONT), -1) << listen.output();
}

TEST(QvctlListen, ClosesTheLongestIdleConnectionForANewOne) {
    const Listen listen("--unix", "ulimit -n 20; ");
    for (int i = 0; i < 40; ++i) {
        sendTo("unix", requestBytes("app", std::to_string(i)));
        EXPECT_TRUE(listen.prints("\"body\":\"" + std::to_string(i) + "\"")) << "a new one waits";
    }
    EXPECT_TRUE(listen.prints("unix connection 1 closed: the longest idle one gives way"));
}

TEST(QvctlListen, BoundsWhatUnfinishedRequestsTake) {
    const std::string beginning = requestBytes("app", std::string(60 << 20, 'x'));
    Listen listen("--unix >/dev/null");
    const int first = sendTo("unix", beginning.substr(0, beginning.size() - 1));
    for (int i = 0; i < 4; ++i) {
        sendTo("unix", beginning.substr(0, beginning.size() - 1));
    }
    EXPECT_TRUE(listen.prints("connection 5 closed: requests that are not whole yet take more"));
    EXPECT_EQ(send(first, "x", 1, 0), 1);
    listen.finish(SIGINT);
    EXPECT_TRUE(listen.prints("qvctl: 1 records in all, 4 malformed")) << "others are served on";
}

TEST(QvctlListen, ShowsRatesInsteadOfRecords) {
    Listen listen("--stats --count 2");
    close(sendTo("tcp", requestBytes("app", "xyz", 7) + requestBytes("app", "xyz", 7)));
    EXPECT_EQ(listen.finish(), 0);
    const std::string row = "\napp +7 +[0-9]+ +[0-9]+ +2\ntotal +[0-9]+ +[0-9]+ +2\n";
    EXPECT_TRUE(std::regex_search(listen.output(), std::regex(row))) << listen.output();
    EXPECT_EQ(listen.output().find("xyz"), std::string::npos);
}

TEST(QvctlListen, KeepsWhatItsFiltersChoose) {
    Listen listen("--type 5-9 --grep x --keep /data/kept --count 2");
    close(sendTo("unix", requestBytes("app", "x", 4) + requestBytes("app", "y", 5) +
                             requestBytes("one", "x", 5) + requestBytes("two", "x", 9)));
    EXPECT_EQ(listen.finish(), 0);
    const std::string kept = run("qvctl spool cat /data/kept");
    const std::string lines = R"(^\{"application":"one".*\n\{"application":"two".*\n$)";
    EXPECT_TRUE(std::regex_match(kept, std::regex(lines))) << kept;
}

}  // namespace
}  // namespace Quorvel
