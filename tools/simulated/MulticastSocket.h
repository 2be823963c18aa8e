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

/// A socket that is a member of a multicast group on one interface, filters received datagrams in the kernel, and sends
/// from any local address.
/// Task: all calls and callbacks run on `task`.
class MulticastSocket final
{
public:
    /// Accepts a datagram if `(byte at offset & mask) == value`. The kernel drops all others.
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

    /// Returns false and sets `error` on failure.
    bool Open(const std::string& interface, std::string& error);
    /// Sends to the group from the address `source` (host byte order). Returns false if the send buffer is full.
    bool Send(const std::vector<std::uint8_t>& bytes, std::uint32_t source);
    /// Like Send(), to one host.
    bool SendTo(const Endpoint& receiver, const std::vector<std::uint8_t>& bytes, std::uint32_t source);

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};
