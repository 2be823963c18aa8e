#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

/// An IPv4 address and a port, host byte order.
struct Endpoint
{
    std::uint32_t address = 0;
    std::uint16_t port = 0;

    auto operator<=>(const Endpoint&) const = default;
};

/// One socket at a multicast group of one interface that hears what it is to hear, and sends from any local address.
/// Task: everything on the one given, callbacks too.
class MulticastSocket final
{
public:
    /// What is heard: a datagram whose byte at `offset` has `value` in the bits of `mask`. Others are dropped in the
    /// kernel.
    struct Filter
    {
        unsigned int offset;
        std::uint8_t mask;
        std::uint8_t value;
    };
    struct Settings
    {
        Endpoint group;
        int ttl = 1;
        Filter filter;
    };
    using Received = std::function<void(const std::uint8_t* bytes, std::size_t size, const Endpoint& sender)>;

    MulticastSocket(NotifyTargetTaskIF* task, const Settings& settings, Received received);
    ~MulticastSocket();
    MulticastSocket(const MulticastSocket&) = delete;
    MulticastSocket& operator=(const MulticastSocket&) = delete;

    /// False, with the reason in `error`.
    bool Open(const std::string& interface, std::string& error);
    /// To the group, from that address (host byte order). False: the kernel has no room now.
    bool Send(const std::vector<std::uint8_t>& bytes, std::uint32_t source);
    /// The same, to one host.
    bool SendTo(const Endpoint& receiver, const std::vector<std::uint8_t>& bytes, std::uint32_t source);

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};
