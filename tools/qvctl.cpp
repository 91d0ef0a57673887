#include <errno.h>
#include <signal.h>
#include <string.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "output.h"
#include "text_safety.h"
#include "verbs.h"

namespace {

int run(int argc, char** argv) {
    CLI::App program{"Works with the log records of applications that use libqvapi.", "qvctl"};
    program.set_version_flag("--version", "qvctl " QVCTL_VERSION);
    program.footer(
        "Example: qvctl check && qvctl listen --json\n"
        "Exit status: 0 success, 1 failure, 2 wrong usage; the verbs' help says what success is.");
    program.failure_message([](const CLI::App*, const CLI::Error& error) {
        return Quorvel::escapeForTerminal(error.what()) +
               "\nRun with --help for more information.\n";
    });
    program.require_subcommand(1);
    int status = 0;
    Quorvel::addListenVerb(program, status);
    Quorvel::addSendVerb(program, status);
    Quorvel::addRatesVerb(program, status);
    Quorvel::addCheckVerb(program, status);
    Quorvel::addSetupVerb(program, status);
    Quorvel::addSpoolVerb(program, status);
    try {
        std::vector<std::string> arguments;  // the parser takes the last one first
        std::transform(std::reverse_iterator(argv + argc), std::reverse_iterator(argv + 1),
                       std::back_inserter(arguments), Quorvel::protect);
        program.parse(arguments);
    } catch (const CLI::RequiredError& error) {
        const std::vector<CLI::App*> chosen = program.get_subcommands();
        const CLI::App& verb = chosen.empty() ? program : *chosen.front();
        const std::vector<std::string> unknown = verb.remaining();
        if (verb.get_require_subcommand_min() > verb.get_subcommands().size() && !unknown.empty()) {
            std::cerr << "qvctl: unknown " << (unknown.front()[0] == '-' ? "option: " : "verb: ")
                      << Quorvel::escapeForTerminal(unknown.front()) << "; "
                      << (chosen.empty() ? "" : "qvctl ") << verb.get_name()
                      << " --help lists them\n";
            return 2;
        }
        program.exit(error);
        return 2;
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? 0 : 2;
    } catch (const std::exception& error) {
        std::cerr << "qvctl: " << Quorvel::escapeForTerminal(error.what()) << '\n';
        return 1;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (!Quorvel::openStandardStreams()) {
        std::cerr << "qvctl: standard output is closed\n";
        return 1;
    }
    signal(SIGPIPE, SIG_IGN);
    const int status = run(argc, argv);
    if (!std::cout.flush()) {
        std::cerr << "qvctl: cannot write to standard output: " << strerror(errno) << '\n';
        return 1;
    }
    return status;
}
