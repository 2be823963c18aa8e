#pragma once

#include <charconv>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

class NotifyTargetTaskIF;

/// Many simulated neighbours in one process, counted from 0, that do what they are told. Task: everything on the one
/// that they were made for, answers too.
class Neighbours
{
public:
    /// One line, "ok …" or "error …".
    using Answer = std::function<void(const std::string& line)>;

    virtual ~Neighbours() = default;

    /// False, with the reason in `error`.
    virtual bool Start(std::string& error) = 0;
    /// One command of those that the program's help lists. Answered when it is done; a second may come before that.
    virtual void Run(const std::string& command, const Answer& answer) = 0;
};

/// "VERB FIRST LAST".
struct RangeCommand
{
    std::string verb;
    std::size_t begin = 0;
    std::size_t end = 0; ///< behind the last one

    /// False, with the answer to be given in `error`: the range is none of `count` neighbours.
    bool Parse(const std::string& command, std::size_t count, std::string& error);
};

/// Runs the commands of standard input on a task of its own until the input ends, answers on standard output, and
/// prints "ready COUNT" before. Ends the process.
[[noreturn]] void ServeCommands(const std::string& program, std::size_t count,
                                const std::function<std::unique_ptr<Neighbours>(NotifyTargetTaskIF*)>& make);

/// As many open files as that, if this process may have them.
void RaiseDescriptorLimit(std::size_t wanted);

/// Decimal, at most `most`.
template <class Number>
std::optional<Number> ReadNumber(const std::string& text, Number most)
{
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    return isNumber && number <= most ? std::make_optional(number) : std::nullopt;
}
