#include "qvctl_shell.h"

namespace Quorvel {
namespace {

TEST(QvctlSetup, MakesAndOpensTheDirectoriesThatServersNeed) {
    const std::string printModes = "find /data/* -type d -printf '%m '";
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"rm -r /data/*/; qvctl setup --dry-run", "would make /data/qvagent with mode 0777\n", ""},
        {"umask 077; qvctl setup", "make /data/qvagent with mode 0777\n", "755 777 "},
        {"chmod 1750 /data/*/; qvctl setup", "from 1750 to 0777\n", "1751 777 "},
        {"qvctl setup", "/data/qvagent is there with mode 0777\n", "1751 777 "},
    };
    for (const auto& [command, output, modes] : rows) {
        run(command, 0, output);
        EXPECT_EQ(run(printModes), modes) << command;
    }
}

TEST(QvctlCheck, SucceedsOnlyWhereRecordsWouldBeDeliveredAndKept) {
    const std::string file = "/data/qvagent/msgdat.dat";
    const std::tuple<std::string, std::string, int, std::string> rows[] = {
        {"", "", 0, "ok      unix /data/container2host/cqv takes connections of this user\n"},
        {"--tcp --udp", "", 1, "FAILED  unix /data/container2host/cqv: No such file"},
        {"--unix --udp", "", 1, "FAILED  tcp 127.0.0.1:20005: Connection refused\n"},
        {"--unix --tcp", "", 1, "FAILED  udp 127.0.0.1:20005 is not served"},
        {"--stall", "", 1, "FAILED  unix /data/container2host/cqv: Connection timed out\n"},
        {"--stall", "", 1, "FAILED  tcp 127.0.0.1:20005: Connection timed out\n"},
        {"", "chmod 0 /data/container2host/cqv;", 1, "cqv: Permission denied\n"},
        {"", "rmdir /data/qvagent;", 1, "FAILED  fallback file " + file + ": No such file"},
        {"", "chmod 500 /data/qvagent;", 1, "FAILED  fallback file " + file + ": Permission"},
        {"", "touch " + file + "; chmod 0 " + file + ";", 1, "dat: Permission denied\n"},
        {"", "ln -s /dev/null " + file + ";", 1, "is not a regular file\n"},
        {"", "mkfifo " + file + ";", 1, "is not a regular file\n        remove what stands"},
        {"", "rmdir /data/qvagent; touch /data/qvagent;", 1, "directory\n        move away what"},
        {"", "mount -t tmpfs -o ro none /data/qvagent;", 1, "file system\n        mount its file"},
        {"", "ln -s /data/gone/x " + file + ";", 1, "link to /data/gone/x: No such file"},
        {"", "ln -s /data/x " + file + ";", 0, "note    fallback file " + file + ", a symbolic"},
        {"", "truncate -s 1000000000 " + file + ";", 0, "note    fallback file "},
        {"", "truncate -s 1000000001 " + file + ";", 1, "bytes, full\n"},
        {"", "echo >" + file + ".replay;", 0, "note    " + file + ".replay: 1 bytes, of a replay"},
        {"", "echo >" + file + ".damaged;", 0, "note    " + file + ".damaged: 1 bytes, which"},
        {"", "mount -t tmpfs -o size=400k,mode=777 none /data/qvagent;", 1, "FAILED  room on its"},
        {"", "chmod +t /data/qvagent;", 0, "note    /data/qvagent has the sticky bit"},
        {"", "", 0, "note    there is no sampling table"},
        {"", "qvctl rates create;", 0, "ok      sampling table with 0 applications\n"},
    };
    for (const auto& [endpoints, change, code, line] : rows) {
        run("umount /data/qvagent; ipcrm -M 9777; rm -rf /data/*/ /data/qvagent; qvctl setup");
        const Listen listen(endpoints);
        const std::string restricted = "setpriv --bounding-set=-dac_override,-ipc_owner ";
        run(change + restricted + "qvctl check", code, line);
    }
}

}  // namespace
}  // namespace Quorvel
