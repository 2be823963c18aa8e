#pragma once

#include <CLIClient.h>

#include <string>

/// The debug console as a test types at it, in the place of the socket for as long as it lives. One at a time.
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

    /// The response, on the calling thread. Throws std::runtime_error where the command is none, or is refused.
    std::string Type(const std::string& line) const;
    const CLIClient::Descriptors& Commands() const;
    /// Lets go of what the service registered.
    void Forget();
};
