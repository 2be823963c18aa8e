#pragma once

#include <string>
#include <utility>

namespace Network
{

/// Where a local service listens: the path of a Unix socket, or nowhere. A value.
class Address
{
public:
    Address() = default;
    explicit Address(std::string path)
        : m_path(std::move(path))
    {
    }

    explicit operator bool() const
    {
        return !m_path.empty();
    }
    const std::string& ToString() const
    {
        return m_path;
    }
    bool operator==(const Address&) const = default;

private:
    std::string m_path;
};

} // namespace Network
