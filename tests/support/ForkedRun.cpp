#include "tests/support/ForkedRun.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace
{

constexpr int kExceptionStatus = 125;

[[noreturn]] void RunChild(int output, std::chrono::seconds limit, const std::function<int()>& body)
{
    ::alarm(static_cast<unsigned>(limit.count()));
    const rlimit size{ForkedResult::kMaxOutput, ForkedResult::kMaxOutput};
    ::setrlimit(RLIMIT_FSIZE, &size);
    std::signal(SIGXFSZ, SIG_IGN); // a write beyond the limit fails instead
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

} // namespace

std::string ForkedResult::HowItEnded() const
{
    if (m_signal == SIGALRM)
    {
        return "time limit";
    }
    return m_signal != 0 ? "signal " + std::to_string(m_signal) : "status " + std::to_string(m_exitStatus);
}

ForkedResult RunForked(const std::function<int()>& body, std::chrono::seconds limit)
{
    std::fflush(nullptr); // otherwise the child prints buffered text again
    const int output = ::memfd_create("output", MFD_CLOEXEC);
    const pid_t child = output < 0 ? -1 : ::fork();
    if (child < 0)
    {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0)
    {
        RunChild(output, limit, body);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR)
    {
    }
    ForkedResult result;
    result.m_exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.m_signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.m_output.resize(ForkedResult::kMaxOutput);
    const ssize_t count = ::pread(output, result.m_output.data(), result.m_output.size(), 0);
    result.m_output.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    ::close(output);
    return result;
}
