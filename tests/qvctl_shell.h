#ifndef QUORVEL_QVCTL_SHELL_H
#define QUORVEL_QVCTL_SHELL_H

#include <signal.h>
#include <sys/wait.h>

#include "test_agent.h"

namespace Quorvel {

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
    pid_t pid() const { return m_pid; }
    long peakKilobytes() const {
        const std::string status = contents("/proc/" + std::to_string(m_pid) + "/status");
        return std::stol(status.substr(status.find("VmHWM:") + 6));
    }

 private:
    std::string m_file;
    pid_t m_pid;
};

/// What `command` prints, with `text` in it, and ends with `code` afterwards.
inline std::string run(const std::string& command, int code = 0, const std::string& text = "") {
    Shell shell(command);
    EXPECT_EQ(shell.finish(), code) << command;
    EXPECT_NE(shell.output().find(text), std::string::npos) << command << '\n' << shell.output();
    return shell.output();
}

/// A `qvctl listen` that serves its endpoints.
struct Listen : Shell {
    explicit Listen(const std::string& arguments = "", const std::string& before = "")
        : Shell(before + "exec qvctl listen " + arguments) {
        EXPECT_TRUE(prints("listening on "));
    }
};

}  // namespace Quorvel

#endif  // QUORVEL_QVCTL_SHELL_H
