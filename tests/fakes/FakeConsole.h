#pragma once

#include <CLIClient.h>

#include <string>

/// Replaces the debug console's socket while it exists: a test calls the registered commands. One at a time.
///
///     FakeConsole console;
///     controller->Initialize();
///     EXPECT_EQ(console.Type("sonarix ssdp start"), "SSDP discovery is already running");
class FakeConsole final
{
public:
    FakeConsole();
    ~FakeConsole();
    FakeConsole(const FakeConsole&) = delete;
    FakeConsole& operator=(const FakeConsole&) = delete;

    /// Runs a command on the calling thread and returns its response. No registered command may be the beginning of
    /// another. Throws std::runtime_error if the command is unknown or is not executed.
    std::string Type(const std::string& line) const;
    const CLIClient::Descriptors& Commands() const;
    /// Releases the registered commands and their handler.
    void Forget();
};
