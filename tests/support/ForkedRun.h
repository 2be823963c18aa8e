#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

/// Result of RunForked(). A value.
struct ForkedResult
{
    int m_exitStatus = -1; ///< -1 if ended by a signal
    int m_signal = 0;      ///< 0 if it exited; SIGALRM at the time limit
    std::string m_output;  ///< standard output and error, at most kMaxOutput bytes

    bool Succeeded() const
    {
        return m_exitStatus == 0;
    }
    std::string HowItEnded() const; ///< "status 1", "signal 6", "time limit"

    static constexpr std::size_t kMaxOutput = std::size_t{256} * 1024;
};

/// Runs `body` in a forked process, whose exit status is the result of `body`, or 125 after a std::exception, whose
/// text is printed. The process is killed after `limit`. Other threads of the caller do not exist in it.
ForkedResult RunForked(const std::function<int()>& body, std::chrono::seconds limit = std::chrono::seconds(60));
