#pragma once

#include "tools/clients/sonarix-console/Completion.h"

#include <functional>
#include <memory>
#include <string>

class SignalDescriptor;

/// Line editor for a terminal, with history and completion, on libedit. At most one per single-threaded process.
///
/// Design: while the user edits a line, poll() waits for the terminal, the signals and one other descriptor. Text that
/// is printed meanwhile overwrites the line, and the line is drawn again below it.
class Editor final
{
public:
    enum class Result
    {
        LINE,
        ABANDONED, ///< Ctrl-C
        END,       ///< Ctrl-D on an empty line, a closed terminal, or SIGTERM or SIGHUP
    };
    struct Hooks
    {
        std::function<Completion(const std::string& before)> complete;
        std::function<int()> other;     ///< returns the other descriptor; -1: none
        std::function<void()> readable; ///< called when that descriptor is readable
    };

    /// `historyFile` may be empty: then no history is stored. `signals` must outlive this object.
    Editor(const std::string& program, const std::string& prompt, const std::string& historyFile,
           SignalDescriptor& signals, Hooks hooks);
    ~Editor();
    Editor(const Editor&) = delete;
    Editor& operator=(const Editor&) = delete;

    Result Read(std::string& line);
    /// Prints whole lines above the line that is being edited.
    void Print(const std::string& text);

    static constexpr int kHistoryLines = 500;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};
