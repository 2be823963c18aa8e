#pragma once

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

/// A service's end of the debug console: it says which commands the service knows, and is called when a person types
/// one. Ours serves the console as the Unix socket `console` in SONARIX_RUN_DIR, see docs/console-protocol.md.
/// Task: the handler is called on the task given to Initialize(), and the socket is served there; what is called here
/// is safe from any thread.
/// Owner: whoever knows the commands. Once destroyed it calls nobody; for that, the destructor waits for a command
/// that is running on another thread.
/// Never blocks on a person: one who does not read is left waiting, or dropped.
class CLIClient final
{
public:
    /// What a person types and reads of one command. A value.
    struct CLICmdDescriptor
    {
        CLICmdDescriptor(std::string commandText, std::string helpText, std::string usageText);

        const std::string command; ///< its words, blanks between them; upper and lower case are the same
        const std::string help;
        const std::string usage;
    };
    using Descriptors = std::vector<std::shared_ptr<CLICmdDescriptor>>;

    /// `command`: the words of the command as they were typed, one blank between them; `arguments`: the words behind
    /// them. Fills in `response`, of any length; false tells the person that it was not done.
    using Handler =
        std::function<bool(const std::string& command, const std::list<std::string>& arguments, std::string& response)>;

    /// `name`: of the service, for log lines.
    explicit CLIClient(const std::string& name);
    ~CLIClient();
    CLIClient(const CLIClient&) = delete;
    CLIClient& operator=(const CLIClient&) = delete;

    /// Once. Returns at once; the console is there as soon as the task has got to it. Where it cannot be (the socket of
    /// a living service stands there, no right to make it), one line of level 1 says so and the service goes without.
    void Initialize(NotifyTargetTaskIF* task, const Descriptors& descriptors, const Handler& handler);

    /// For every console that is open, without an order between this and the answer to a command.
    void SendAsyncResponse(const std::string& text);

    /// In a test: Initialize() hands what it got to this, and opens nothing. Null in the product.
    using InitializeOverride = void (*)(const Descriptors& descriptors, const Handler& handler);
    static void SetInitializeOverride(InitializeOverride initialize);

private:
    class Impl;
    std::shared_ptr<Impl> m_impl;
};
