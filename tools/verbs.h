#ifndef QUORVEL_VERBS_H
#define QUORVEL_VERBS_H

#include <CLI/App.hpp>
#include <string>

namespace Quorvel {

/// Each adds its verb to `program`; parsing a command line that names the verb runs it and stores
/// the program's exit status in `status`. A verb that cannot do its work throws std::exception.
void addCheckVerb(CLI::App& program, int& status);
void addListenVerb(CLI::App& program, int& status);
void addSendVerb(CLI::App& program, int& status);
void addRatesVerb(CLI::App& program, int& status);
void addSetupVerb(CLI::App& program, int& status);
void addSpoolVerb(CLI::App& program, int& status);
void addSendModuleVerb(CLI::App& send, int& status);
void addSendStatVerb(CLI::App& send, int& status);

/// Adds the option --transport, with the name of a transport as its value.
void addTransportOption(CLI::App& verb, std::string& transport);

/// The command-line parser splits a value in brackets at its commas where an option takes several.
/// A NUL at the value's end, which no argument has of its own, keeps it whole on the way.
inline std::string protect(const std::string& argument) {
    const bool bracketed = argument.size() > 1 && argument.front() == '[' && argument.back() == ']';
    return bracketed ? argument + '\0' : argument;
}

inline std::string unprotect(const std::string& value) { return value.substr(0, value.find('\0')); }

}  // namespace Quorvel

#endif  // QUORVEL_VERBS_H
