#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

/// How a forked run ended. A value.
struct ForkedResult
{
    int m_exitStatus = -1; ///< -1: ended by a signal
    int m_signal = 0;      ///< 0: left by itself; SIGALRM: at the time limit
    std::string m_output;  ///< standard output and error as they came, cut off after kMaxOutput bytes

    bool Succeeded() const
    {
        return m_exitStatus == 0;
    }
    std::string HowItEnded() const; ///< "status 1", "signal 6", "time limit"

    static constexpr std::size_t kMaxOutput = std::size_t{256} * 1024;
};

/// Runs `body` in a process of its own, which leaves by _exit with what `body` returns (125 and the text for a
/// std::exception). One that takes longer than `limit` is killed. `body` starts no thread where the caller has some.
ForkedResult RunForked(const std::function<int()>& body, std::chrono::seconds limit = std::chrono::seconds(60));
