#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "verbs.h"

int main(int argc, char** argv) {
    CLI::App program{"Works with the log records of applications that use libqvapi.", "qvctl"};
    program.footer(
        "Exit status: 0 success, 1 failure, 2 wrong usage; the verbs' help says what success is.");
    program.require_subcommand(1);
    int status = 0;
    Quorvel::addListenVerb(program, status);
    Quorvel::addSendVerb(program, status);
    try {
        std::vector<std::string> arguments;  // the parser takes the last one first
        std::transform(std::reverse_iterator(argv + argc), std::reverse_iterator(argv + 1),
                       std::back_inserter(arguments), Quorvel::protect);
        program.parse(arguments);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? 0 : 2;
    } catch (const std::exception& error) {
        std::cerr << "qvctl: " << error.what() << '\n';
        return 1;
    }
    return status;
}
