#pragma once

#include <string>
#include <utility>

namespace Network
{

/// The address of a local service: the path of a Unix socket. Converts to false if empty. A value.
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
