#include "tools/network-status/NetlinkMonitor.h"

#include "runtime/MonotonicClock.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr int kQuietMs = 50;
constexpr int kLongestBurstMs = 500;

/// Returns 1 if the descriptor is readable, 0 after the timeout, -1 on an error.
int PollFor(int descriptor, int milliseconds)
{
    pollfd entry{descriptor, POLLIN, 0};
    const int count = poll(&entry, 1, milliseconds);
    if (count < 0)
    {
        return errno == EINTR ? 1 : -1; // a spurious read is harmless
    }
    return count;
}

} // namespace

std::unique_ptr<NetlinkMonitor> NetlinkMonitor::Open(std::string& error)
{
    const int descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
    if (descriptor < 0 || bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    {
        error = std::strerror(errno);
        if (descriptor >= 0)
        {
            close(descriptor);
        }
        return nullptr;
    }
    return std::unique_ptr<NetlinkMonitor>(new NetlinkMonitor(descriptor));
}

NetlinkMonitor::NetlinkMonitor(int descriptor)
    : m_descriptor(descriptor)
{
}

NetlinkMonitor::~NetlinkMonitor()
{
    close(m_descriptor);
}

bool NetlinkMonitor::Wait()
{
    if (PollFor(m_descriptor, -1) < 0 || !Drain())
    {
        return false;
    }
    const std::int64_t end = MonotonicClock::NowMs() + kLongestBurstMs;
    while (MonotonicClock::NowMs() < end)
    {
        const int more = PollFor(m_descriptor, kQuietMs);
        if (more <= 0)
        {
            return more == 0;
        }
        if (!Drain())
        {
            return false;
        }
    }
    return true;
}

/// Discards the messages, because the caller reads the whole state.
bool NetlinkMonitor::Drain() const
{
    std::array<char, 8192> buffer{};
    for (;;)
    {
        if (recv(m_descriptor, buffer.data(), buffer.size(), 0) >= 0 || errno == ENOBUFS || errno == EINTR)
        {
            continue;
        }
        return errno == EAGAIN;
    }
}
