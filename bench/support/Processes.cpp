#include "bench/support/Processes.h"

#include <cstdio>
#include <ctime>
#include <fstream>

#include <csignal>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

double Read(clockid_t clock)
{
    timespec time{};
    return ::clock_gettime(clock, &time) == 0
               ? static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9
               : 0;
}

int FreePort()
{
    const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    static_cast<void>(::bind(probe, reinterpret_cast<const sockaddr*>(&address), length));
    ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(probe);
    return ntohs(address.sin_port);
}

} // namespace

double ThreadCpu()
{
    return Read(CLOCK_THREAD_CPUTIME_ID);
}

double ProcessCpu(pid_t process)
{
    clockid_t clock{};
    return ::clock_getcpuclockid(process, &clock) == 0 ? Read(clock) : 0;
}

double PeakMemory(pid_t process)
{
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);)
    {
        long kib = 0;
        if (std::sscanf(line.c_str(), "VmHWM: %ld kB", &kib) == 1)
        {
            return static_cast<double>(kib) / 1024;
        }
    }
    return 0;
}

void ForgetPeakMemory(pid_t process)
{
    std::ofstream("/proc/" + std::to_string(process) + "/clear_refs") << "5";
}

long PrivateDirty(pid_t process)
{
    std::ifstream rollup("/proc/" + std::to_string(process) + "/smaps_rollup");
    long total = 0;
    for (std::string line; std::getline(rollup, line);)
    {
        long kib = 0;
        if (std::sscanf(line.c_str(), "Private_Dirty: %ld kB", &kib) == 1)
        {
            total += kib;
        }
    }
    return total;
}

void RaiseDescriptorLimit()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

ChildProcess::ChildProcess(const std::vector<std::string>& command, int inherited)
{
    std::vector<char*> arguments; // filled before fork(): the child of a process with threads must not allocate
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command)
    {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    m_pid = ::fork();
    if (m_pid == 0)
    {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (inherited >= 0)
        {
            ::dup2(inherited, kInherited);
        }
        ::execv(arguments.front(), arguments.data());
        ::_exit(127);
    }
}

ChildProcess::~ChildProcess()
{
    ::kill(m_pid, SIGTERM);
    ::waitpid(m_pid, nullptr, 0);
}

GatewayProcess::GatewayProcess(const std::string& program)
    : m_port(FreePort())
    , m_process({program, "--port", std::to_string(m_port), "--lan-port", "0"})
{
}
