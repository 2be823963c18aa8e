#pragma once

#include <memory>
#include <string>

/// Waits for netlink messages about links and IPv4 addresses. Used by one thread, which it blocks.
class NetlinkMonitor
{
public:
    /// Returns null and sets `error` on failure.
    static std::unique_ptr<NetlinkMonitor> Open(std::string& error);
    ~NetlinkMonitor();
    NetlinkMonitor(const NetlinkMonitor&) = delete;
    NetlinkMonitor& operator=(const NetlinkMonitor&) = delete;

    /// Returns true after a possible change: 50 ms after the last message of a burst, at most 500 ms after the first.
    /// Dropped messages count as a change, so the caller must read the whole state. Returns false if the socket fails.
    [[nodiscard]] bool Wait();

private:
    explicit NetlinkMonitor(int descriptor);
    bool Drain() const;

    int m_descriptor;
};
