#pragma once

#include <charconv>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

class NotifyTargetTaskIF;

/// Many simulated devices in one process, numbered from 0 and controlled by text commands.
/// Task: all calls and callbacks run on the task for which the simulator was created.
class Simulator
{
public:
    /// Receives one line, "ok …" or "error …".
    using Answer = std::function<void(const std::string& line)>;

    virtual ~Simulator() = default;

    /// Returns false and sets `error` on failure.
    virtual bool Start(std::string& error) = 0;
    /// Executes a command from the program's help and calls `answer` when it is done. Commands may overlap.
    virtual void Run(const std::string& command, const Answer& answer) = 0;
};

/// "VERB FIRST LAST".
struct RangeCommand
{
    std::string verb;
    std::size_t begin = 0;
    std::size_t end = 0; ///< one past the last index

    /// Returns false and sets `error` to the answer line if the indices are not a range within `count` devices.
    bool Parse(const std::string& command, std::size_t count, std::string& error);
};

/// Creates a task and the simulator on it, prints "ready COUNT", then executes commands from standard input and prints
/// the answers. Ends the process at the end of the input.
[[noreturn]] void ServeCommands(const std::string& program, std::size_t count,
                                const std::function<std::unique_ptr<Simulator>(NotifyTargetTaskIF*)>& make);

/// Raises the limit of open files to `wanted`, or as far as this process is allowed to.
void RaiseDescriptorLimit(std::size_t wanted);

/// Parses a decimal number of at most `most`.
template <class Number>
std::optional<Number> ReadNumber(const std::string& text, Number most)
{
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    return isNumber && number <= most ? std::make_optional(number) : std::nullopt;
}
