#pragma once

#include "runtime/FactoryOverride.h"

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

/// The service's part of the debug console: registers commands and calls a handler when a user runs one. Our
/// implementation serves the Unix socket `console` in SONARIX_RUN_DIR; docs/console-protocol.md describes it.
/// Task: the handler and the socket run on the task given to Initialize(). All operations are safe from any thread.
/// Owner: the object that handles the commands. The destructor waits for a command that runs on another thread; the
/// handler is not called after destruction.
/// Never blocks on a console that does not read: its next command waits, or its connection is closed.
class CLIClient final
{
public:
    /// The texts of one command. A value.
    struct CLICmdDescriptor
    {
        CLICmdDescriptor(std::string commandText, std::string helpText, std::string usageText);

        const std::string command; ///< its words, separated by blanks; case is ignored
        const std::string help;
        const std::string usage;
    };
    using Descriptors = std::vector<std::shared_ptr<CLICmdDescriptor>>;

    /// `command` has the words of the command as typed, separated by one blank; `arguments` has the words after it.
    /// Sets `response`, of any length. Returns false if the command was not executed.
    using Handler =
        std::function<bool(const std::string& command, const std::list<std::string>& arguments, std::string& response)>;

    /// `name` is the name of the service in log lines.
    explicit CLIClient(const std::string& name);
    ~CLIClient();
    CLIClient(const CLIClient&) = delete;
    CLIClient& operator=(const CLIClient&) = delete;

    /// To be called once. Returns at once; an entry of the task opens the socket. If that fails (the socket of another
    /// running service, missing permission), one line of level 1 is logged and there is no console.
    void Initialize(NotifyTargetTaskIF* task, const Descriptors& descriptors, const Handler& handler);

    /// Sends `text` to every open console. The order relative to responses is not defined.
    void SendAsyncResponse(const std::string& text);

    /// If set, by a test, Initialize() calls this function and opens no socket.
    static inline FactoryOverride<void (*)(const Descriptors& descriptors, const Handler& handler)>
        s_initializeOverride;

private:
    class Impl;
    std::shared_ptr<Impl> m_impl;
};
