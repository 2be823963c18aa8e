#include "ForkedRun.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <poll.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int kExceptionStatus = 125;

[[noreturn]] void RunChild(int output, const std::function<int()>& body)
{
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    ::close(output);
    int status = kExceptionStatus;
    try
    {
        status = body();
    }
    catch (const std::exception& exception)
    {
        std::fprintf(stderr, "exception: %s\n", exception.what());
    }
    std::fflush(nullptr);
    ::_exit(status);
}

/// Until everybody who holds the other end has closed it; false at the time limit.
bool ReadUntilClosed(int input, Clock::time_point deadline, std::string& output)
{
    std::array<char, 4096> buffer;
    for (;;)
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd readable{input, POLLIN, 0};
        const int ready = left > 0 ? ::poll(&readable, 1, static_cast<int>(left)) : 0;
        if (ready == 0)
        {
            return false;
        }
        const ssize_t count = ready > 0 ? ::read(input, buffer.data(), buffer.size()) : -1;
        if (count == 0 || (count < 0 && errno != EINTR))
        {
            return true;
        }
        if (count > 0 && output.size() < ForkedResult::kMaxOutput)
        {
            output.append(buffer.data(), static_cast<std::size_t>(count));
        }
    }
}

} // namespace

std::string ForkedResult::HowItEnded() const
{
    if (m_timedOut)
    {
        return "time limit";
    }
    return m_signal != 0 ? "signal " + std::to_string(m_signal) : "status " + std::to_string(m_exitStatus);
}

ForkedResult RunForked(const std::function<int()>& body, std::chrono::seconds limit)
{
    int ends[2];
    if (::pipe(ends) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    std::fflush(nullptr); // what is buffered here must not come out twice
    const pid_t child = ::fork();
    if (child < 0)
    {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0)
    {
        ::close(ends[0]);
        RunChild(ends[1], body);
    }
    ::close(ends[1]);
    ForkedResult result;
    result.m_timedOut = !ReadUntilClosed(ends[0], Clock::now() + limit, result.m_output);
    ::close(ends[0]);
    if (result.m_timedOut)
    {
        ::kill(child, SIGKILL);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR)
    {
    }
    if (WIFEXITED(status))
    {
        result.m_exitStatus = WEXITSTATUS(status);
    }
    else
    {
        result.m_signal = WTERMSIG(status);
    }
    return result;
}
