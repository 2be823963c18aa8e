#pragma once

#include "bench/support/Processes.h"

#include <chrono>
#include <cstddef>
#include <optional>

/// One event of a subscriber, sent to the bench through a pipe.
struct Notice
{
    enum class Kind
    {
        LIST,
        CONNECTED,
        LOST, ///< the connection ended
    };
    Kind kind = Kind::LIST;
    int subscriber = 0;
    int rows = 0;
    int online = 0;        ///< rows that are ONLINE
    std::size_t bytes = 0; ///< size of the body
};

/// The sum of the notices of one subscriber.
struct SubscriberStats
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

    /// The next notice, or nullopt if none arrives before `until`.
    std::optional<Notice> Read(std::chrono::steady_clock::time_point until) const;

    int WriteEnd() const
    {
        return m_ends[1];
    }

private:
    int m_ends[2] = {-1, -1};
};

/// A process that subscribes to the product table with the real client library and parses every list.
class SubscriberProcess
{
public:
    SubscriberProcess(int port, int number, const NoticePipe& notices);

    pid_t Pid() const
    {
        return m_process.Pid();
    }

    static constexpr const char* kOption = "--subscriber";
    /// The main function of that process, which runs this program with kOption, port and number. A signal ends it.
    static void Run(int port, int number);

private:
    const ChildProcess m_process;
};
