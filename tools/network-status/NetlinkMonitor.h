#pragma once

#include <memory>
#include <string>

/// Waits for the kernel to tell of changed links and IPv4 addresses. Used by one thread, which it blocks.
class NetlinkMonitor
{
public:
    /// Null, with the reason in `error`, where the socket cannot be made.
    static std::unique_ptr<NetlinkMonitor> Open(std::string& error);
    ~NetlinkMonitor();
    NetlinkMonitor(const NetlinkMonitor&) = delete;
    NetlinkMonitor& operator=(const NetlinkMonitor&) = delete;

    /// Returns once something may have changed and the burst of messages is over: after 50 ms of quiet, at the
    /// latest after half a second. Messages that the kernel had to throw away count as a change, so the caller
    /// reads everything afresh each time. False where the socket is broken.
    [[nodiscard]] bool Wait();

private:
    explicit NetlinkMonitor(int descriptor);
    bool Drain() const;

    int m_descriptor;
};
