#pragma once

#include "bench/support/Processes.h"

#include <chrono>
#include <cstddef>
#include <optional>

/// What a subscriber tells the service's process, as bytes through a pipe.
struct Notice
{
    enum class Kind
    {
        LIST,
        CONNECTED,
        LOST, ///< its connection
    };
    Kind kind = Kind::LIST;
    int subscriber = 0;
    int rows = 0;
    int online = 0;        ///< of these
    std::size_t bytes = 0; ///< of the body
};

/// What one subscriber has told so far.
struct Heard
{
    int lists = 0;
    int connections = 0;
    int losses = 0;
    double bytes = 0;
    Notice last; ///< the last list

    void Take(const Notice& notice);
};

class NoticePipe
{
public:
    NoticePipe();
    ~NoticePipe();
    NoticePipe(const NoticePipe&) = delete;
    NoticePipe& operator=(const NoticePipe&) = delete;

    /// The next, or nothing when none has come by `until`.
    std::optional<Notice> Read(std::chrono::steady_clock::time_point until) const;

    int WriteEnd() const
    {
        return m_ends[1];
    }

private:
    int m_ends[2] = {-1, -1};
};

/// A process that subscribes to the product table by the real client library and reads every list into a record.
class SubscriberProcess
{
public:
    SubscriberProcess(int port, int number, const NoticePipe& notices);

    pid_t Pid() const
    {
        return m_process.Pid();
    }

    static constexpr const char* kOption = "--subscriber";
    /// The life of that process, which is this program with kOption, port and number; ended by a signal.
    static void Run(int port, int number);

private:
    const ChildProcess m_process;
};
