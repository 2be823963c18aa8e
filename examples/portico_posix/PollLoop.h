#pragma once

#include <memory>
#include <mutex>
#include <vector>

class Session;

/// The one thread of all gateway connections of a process: waits for their sockets and times. Never ends.
class PollLoop final
{
public:
    static PollLoop& Instance();

    void Add(std::shared_ptr<Session> session);
    void Wake() const; ///< every session has a turn

private:
    PollLoop();
    [[noreturn]] void Run();

    const int m_wakeDescriptor;
    std::mutex m_mutex;
    std::vector<std::shared_ptr<Session>> m_added; ///< since the last turn
};
