#ifndef QUORVEL_COMMAND_LINE_H
#define QUORVEL_COMMAND_LINE_H

#include <CLI/App.hpp>
#include <charconv>
#include <string>
#include <system_error>

namespace Quorvel {

/// The decimal number from `min` to `max` that the value of an option or argument is; throws
/// CLI::ValidationError for anything else.
template <class Number>
Number parseNumber(const std::string& option, const std::string& text, Number min, Number max) {
    const char* const end = text.data() + text.size();
    Number number = 0;
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end || number < min || number > max) {
        throw CLI::ValidationError(option, text + " is no number from " + std::to_string(min) +
                                               " to " + std::to_string(max));
    }
    return number;
}

/// Adds an option or argument whose value is such a number.
/// @param target a Number or an optional one; set to the value.
template <class Number, class Target>
CLI::Option* addNumber(CLI::App& verb, const std::string& name, Target& target, Number min,
                       Number max, const std::string& help) {
    const auto parse = [&target, name, min, max](const std::string& text) {
        target = parseNumber(name, text, min, max);
    };
    return verb.add_option_function<std::string>(name, parse, help)->type_name("NUMBER");
}

/// What is wrong with the name of a file; empty if nothing is.
inline std::string checkFileName(const std::string& name) {
    return name.empty() ? "the name is empty" : "";
}

}  // namespace Quorvel

#endif  // QUORVEL_COMMAND_LINE_H
