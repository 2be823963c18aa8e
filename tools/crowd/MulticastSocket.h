#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

/// One socket at 224.0.0.251:5353 of one interface that hears queries and sends from any local address.
/// Task: everything on the one given, callbacks too. Responses of others are dropped in the kernel.
class MulticastSocket final
{
public:
    /// `sender` tells one sender's datagrams from another's.
    using Received = std::function<void(const std::uint8_t* bytes, std::size_t size, std::uint64_t sender)>;

    MulticastSocket(NotifyTargetTaskIF* task, Received received);
    ~MulticastSocket();
    MulticastSocket(const MulticastSocket&) = delete;
    MulticastSocket& operator=(const MulticastSocket&) = delete;

    /// False, with the reason in `error`.
    bool Open(const std::string& interface, std::string& error);
    /// To the group, from that address (host byte order). False: the kernel has no room now.
    bool Send(const std::vector<std::uint8_t>& bytes, std::uint32_t source);

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};
