#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

/// How a forked run ended. A value.
struct ForkedResult
{
    int m_exitStatus = -1; ///< -1: ended by a signal
    int m_signal = 0;      ///< 0: left by itself
    bool m_timedOut = false;
    std::string m_output; ///< standard output and error as they came, cut off after kMaxOutput bytes

    bool Succeeded() const
    {
        return m_exitStatus == 0 && !m_timedOut;
    }
    std::string HowItEnded() const; ///< "status 1", "signal 6", "time limit"

    static constexpr std::size_t kMaxOutput = std::size_t{256} * 1024;
};

/// Runs `body` in a process of its own, which leaves by _exit with what `body` returns (125 and the text for an
/// exception). One that takes longer than `limit` is killed. `body` starts no thread where the caller has some.
ForkedResult RunForked(const std::function<int()>& body, std::chrono::milliseconds limit = std::chrono::seconds(60));

/// Executes this very program anew for the test `test` alone ("Suite.Name"), which asks IsRunAnew() for its
/// part. For what a process does only once, or what ends a test as failed.
/// `prepare` runs first in the new process, before the program does.
ForkedResult RunTestAnew(const std::string& test, const std::function<void()>& prepare);

/// True in the process that RunTestAnew made.
bool IsRunAnew();
