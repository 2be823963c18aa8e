#include "ServiceProcess.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int kLimitMs = 30'000;

std::string MakeDirectory()
{
    std::string name = (std::filesystem::temp_directory_path() / "sonarix-run-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
    {
        throw std::runtime_error("mkdtemp failed");
    }
    return name;
}

std::vector<char*> Pointers(std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (std::string& string : strings)
    {
        pointers.push_back(string.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

ServiceProcess::ServiceProcess(const std::string& runDir, const std::vector<std::string>& arguments)
    : m_runDir(runDir.empty() ? MakeDirectory() : runDir)
    , m_ownsRunDir(runDir.empty())
{
    std::vector<std::string> argv{SONARIX_SERVICE_PROGRAM};
    argv.insert(argv.end(), arguments.begin(), arguments.end());

    const char* const tsanOptions = std::getenv("TSAN_OPTIONS");
    std::vector<std::string> environment;
    for (char** variable = environ; *variable != nullptr; ++variable)
    {
        environment.emplace_back(*variable);
    }
    for (const std::string& variable :
         {"SONARIX_RUN_DIR=" + m_runDir, "SONARIX_ETC_DIR=" + m_runDir + "/", "SONARIX_MFG_DATA=" + m_runDir + "/none",
          "SONARIX_PRODUCT_CONFIG=" + m_runDir + "/none", "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + m_runDir + "/none",
          std::string("SONARIX_LOG=4"),
          // The crash handler allocates on purpose.
          "TSAN_OPTIONS=" + std::string(tsanOptions != nullptr ? tsanOptions : "") + ":report_signal_unsafe=0"})
    {
        const std::string name = variable.substr(0, variable.find('=') + 1);
        std::erase_if(environment, [&name](const std::string& other) { return other.starts_with(name); });
        environment.push_back(variable);
    }

    std::array<int, 2> pipe{};
    if (pipe2(pipe.data(), O_CLOEXEC) != 0)
    {
        throw std::runtime_error("no pipe");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDERR_FILENO);
    const int failure = posix_spawn(&m_pid, SONARIX_SERVICE_PROGRAM, &actions, nullptr, Pointers(argv).data(),
                                    Pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    close(pipe[1]);
    m_stderr = pipe[0];
    if (failure != 0)
    {
        throw std::runtime_error("cannot start " SONARIX_SERVICE_PROGRAM);
    }
}

ServiceProcess::~ServiceProcess()
{
    if (m_pid > 0)
    {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_stderr);
    if (m_ownsRunDir)
    {
        std::filesystem::remove_all(m_runDir);
    }
}

bool ServiceProcess::ReadSome()
{
    pollfd readable{m_stderr, POLLIN, 0};
    if (poll(&readable, 1, kLimitMs) <= 0)
    {
        return false;
    }
    std::array<char, 4096> buffer{};
    const ssize_t count = read(m_stderr, buffer.data(), buffer.size());
    if (count > 0)
    {
        m_output.append(buffer.data(), static_cast<std::size_t>(count));
    }
    m_ended = count <= 0;
    return !m_ended;
}

bool ServiceProcess::ReadUntil(const std::string& text)
{
    while (m_output.find(text) == std::string::npos)
    {
        if (!ReadSome())
        {
            return false;
        }
    }
    return true;
}

void ServiceProcess::Kill(int signal) const
{
    kill(m_pid, signal);
}

int ServiceProcess::Wait()
{
    while (ReadSome())
    {
    }
    if (!m_ended)
    {
        kill(m_pid, SIGKILL); // it hangs: let the caller see this status
    }
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = -1;
    return status;
}
