#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include "host_paths.h"
#include "verbs.h"

namespace Quorvel {
namespace {

struct Directory {
    const char* path;
    mode_t fresh;    ///< the mode of a new one
    mode_t needed;   ///< what one that is there has to allow
    mode_t harmful;  ///< what it must not have
};

// Only the agent creates its socket; every server passes through to connect. Every server creates
// the fallback file, and appends to one that another user's server has created: in a directory with
// the sticky bit, fs.protected_regular (proc(5)) would forbid that.
const Directory kDirectories[] = {
    {"/data", 0755, 0011, 0},
    {kAgentDirectory, 0755, 0011, 0},
    {kFallbackDirectory, 0777, 0777, S_ISVTX},
};

std::string octal(mode_t mode) {
    char text[sizeof("07777")];
    snprintf(text, sizeof(text), "%04o", mode & 07777U);
    return text;
}

void perform(const std::string& what, bool dryRun, const std::function<bool()>& action) {
    if (!dryRun && !action()) {
        throw std::runtime_error("cannot " + what + ": " + strerror(errno));
    }
    std::cout << (dryRun ? "would " : "") << what << '\n';
}

void prepare(const Directory& directory, bool dryRun) {
    const std::string path = directory.path;
    struct stat status {};
    if (stat(directory.path, &status) != 0) {
        perform("make " + path + " with mode " + octal(directory.fresh), dryRun, [&directory] {
            return mkdir(directory.path, 0700) == 0 && chmod(directory.path, directory.fresh) == 0;
        });
        return;
    }
    if (!S_ISDIR(status.st_mode)) {
        throw std::runtime_error(path + " is not a directory; it stays untouched");
    }
    const mode_t mode = ((status.st_mode & 07777U) | directory.needed) & ~directory.harmful;
    if (mode == (status.st_mode & 07777U)) {
        std::cout << path << " is there with mode " << octal(mode) << '\n';
        return;
    }
    perform("change the mode of " + path + " from " + octal(status.st_mode) + " to " + octal(mode),
            dryRun, [&directory, mode] { return chmod(directory.path, mode) == 0; });
}

}  // namespace

void addSetupVerb(CLI::App& program, int& status) {
    const auto dryRun = std::make_shared<bool>(false);
    CLI::App* verb = program.add_subcommand(
        "setup", "Make the directories that the agent and the applications of a host need.");
    verb->footer(
        "Servers of every user can then connect to the agent's socket and write to the fallback\n"
        "file. Says what it does. What is there and open enough stays as it is.\n"
        "Example: qvctl setup --dry-run\n"
        "Exit status: 0 the directories are as needed, 1 not all of them, 2 wrong usage.");
    verb->add_flag("--dry-run", *dryRun, "Only say what would be done");
    verb->callback([dryRun, &status] {
        for (const Directory& directory : kDirectories) {
            prepare(directory, *dryRun);
        }
        status = 0;
    });
}

}  // namespace Quorvel
