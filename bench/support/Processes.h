#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

/// CPU seconds of the thread that calls.
double ThreadCpu();
/// CPU seconds of a process with all its threads; 0 where there is no such process.
double ProcessCpu(pid_t process);

/// The most memory that a process has held at once, in MiB, since ForgetPeakMemory (or its start).
double PeakMemory(pid_t process);
void ForgetPeakMemory(pid_t process);

/// KiB that the process alone has written to: what it really takes from the product.
long PrivateDirty(pid_t process);

/// As many as this process may have.
void RaiseDescriptorLimit();

/// A program that ends with this object, and with this process however that ends. On the main thread.
class ChildProcess
{
public:
    /// `inherited` is descriptor kInherited there; -1: none.
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

/// The gateway program on ports of loopback that were free a moment ago.
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
