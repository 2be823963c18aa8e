#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

class NotifyTargetTaskIF;
class Options;

/// Indices of simulated devices.
struct Range
{
    std::size_t begin = 0;
    std::size_t end = 0; ///< one past the last index
};

/// Many simulated devices in one process, numbered from 0 and controlled by text commands: "stats" and "VERB FIRST
/// LAST". Task: all calls and callbacks run on the task for which the simulator was created.
class Simulator
{
public:
    /// Receives one line, "ok …" or "error …".
    using Answer = std::function<void(const std::string& line)>;

    Simulator(NotifyTargetTaskIF* task, std::size_t count)
        : m_task(task)
        , m_count(count)
    {
    }
    virtual ~Simulator() = default;
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    /// Returns false and sets `error` on failure.
    virtual bool Start(std::string& error) = 0;
    /// Executes a command from the program's help and calls `answer` when it is done. Commands may overlap.
    void Run(const std::string& command, const Answer& answer);

protected:
    /// A running command: it is done when the last copy of the pointer is destroyed.
    using Pending = std::shared_ptr<void>;
    /// Executes a verb. Returns false and sets `error` on failure.
    using Action = std::function<bool(const Range&, const Pending&, std::string& error)>;

    /// Makes an action that cannot fail and calls `action` for each device of the range.
    static Action ForEach(const std::function<void(std::size_t device, const Pending&)>& action);
    /// The counters that follow "ok " in the answer to "stats".
    virtual std::string Stats() const = 0;

    NotifyTargetTaskIF* const m_task;
    const std::size_t m_count;
    std::map<std::string, Action> m_actions; ///< by verb; filled by the constructors
};

/// Ignores SIGPIPE, starts logging (only errors with the option `quiet`), and raises the limit of open files for
/// `socketsEach` per device, as far as this process is allowed to. Creates a task and the simulator on it, prints
/// "ready COUNT", then executes commands from standard input and prints the answers. Ends the process at the end of the
/// input.
[[noreturn]] void ServeCommands(const std::string& program, const Options& options, std::size_t count,
                                std::size_t socketsEach,
                                const std::function<std::unique_ptr<Simulator>(NotifyTargetTaskIF*)>& make);

/// Reads the options `interface` and `first-address`, in host byte order. Returns the reason if one is invalid, else an
/// empty text.
std::string ReadNetwork(const Options& options, const std::string& defaultAddress, std::string& interface,
                        std::uint32_t& firstAddress);

/// Parses a decimal number of at most `most`.
template <class Number>
std::optional<Number> ReadNumber(const std::string& text, Number most)
{
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    return isNumber && number <= most ? std::make_optional(number) : std::nullopt;
}
