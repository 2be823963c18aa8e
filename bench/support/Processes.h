#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

/// CPU seconds of the calling thread.
double ThreadCpu();
/// CPU seconds of all threads of a process; 0 if it does not exist.
double ProcessCpu(pid_t process);

/// Peak resident memory of a process in MiB since ForgetPeakMemory() or its start.
double PeakMemory(pid_t process);
void ForgetPeakMemory(pid_t process);

/// Returns the private dirty memory of a process in KiB.
long PrivateDirty(pid_t process);

/// Raises the soft limit of open files to the hard limit.
void RaiseDescriptorLimit();

/// A child process that ends with this object, and also if this process is killed. Create it on the main thread.
class ChildProcess
{
public:
    /// The child gets `inherited` as descriptor kInherited; -1: none.
    explicit ChildProcess(const std::vector<std::string>& command, int inherited = -1);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const
    {
        return m_pid;
    }

    static constexpr int kInherited = 3;

private:
    pid_t m_pid = -1;
};

/// The gateway program on a free loopback port.
class GatewayProcess
{
public:
    explicit GatewayProcess(const std::string& program);

    int Port() const
    {
        return m_port;
    }
    pid_t Pid() const
    {
        return m_process.Pid();
    }

private:
    const int m_port;
    const ChildProcess m_process;
};
