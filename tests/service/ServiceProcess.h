#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

/// The real daemon as a child process: no system bus and no gateway that it could reach, a run directory of its own,
/// log level 4 on standard error. Its destructor kills it and takes the directory away.
class ServiceProcess final
{
public:
    /// An empty `runDir`: one of its own.
    explicit ServiceProcess(const std::string& runDir = {}, const std::vector<std::string>& arguments = {});
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    /// Reads on until the output holds `text`; false at its end, and after 30 s.
    bool ReadUntil(const std::string& text);
    void Kill(int signal) const;
    /// Reads the rest of the output, waits for the end and gives the status as waitpid() does. Kills a process
    /// that is silent for 30 s.
    int Wait();

    pid_t Pid() const
    {
        return m_pid;
    }
    const std::string& RunDir() const
    {
        return m_runDir;
    }
    const std::string& Output() const
    {
        return m_output;
    }

private:
    bool ReadSome();

    std::string m_runDir;
    bool m_ownsRunDir;
    pid_t m_pid = -1;
    int m_stderr = -1;
    bool m_ended = false; ///< of the output
    std::string m_output;
};
