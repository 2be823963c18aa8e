#pragma once

#include "tools/clients/sonarix-console/Completion.h"

#include <functional>
#include <memory>
#include <string>

class Signals;

/// A line of a person at a terminal, with history and completion, on libedit. One to a process, on its one thread.
///
/// Design: while a line is typed, the terminal, the signals and one other descriptor are waited for together. Text that
/// comes in between takes the place of the line, which is then drawn anew below it.
class Editor final
{
public:
    enum class Result
    {
        LINE,
        ABANDONED, ///< Ctrl-C
        END,       ///< Ctrl-D on an empty line, a closed terminal, or a signal to end
    };
    struct Hooks
    {
        std::function<Completion(const std::string& before)> complete;
        std::function<int()> other;     ///< a descriptor to be waited for meanwhile; -1: none
        std::function<void()> readable; ///< it can be read
    };

    /// `historyFile`: empty for none; where it cannot be written, nothing is kept. `signals` outlives it.
    Editor(const std::string& program, const std::string& prompt, const std::string& historyFile, Signals& signals,
           Hooks hooks);
    ~Editor();
    Editor(const Editor&) = delete;
    Editor& operator=(const Editor&) = delete;

    Result Read(std::string& line);
    /// Whole lines, above the one that is being typed.
    void Print(const std::string& text);

    static constexpr int kHistoryLines = 500;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};
