#pragma once

#include <string>
#include <string_view>

/// A client's end of a Unix stream socket. For one thread, which it blocks.
class LocalSocket final
{
public:
    explicit LocalSocket(std::string path);
    ~LocalSocket();
    LocalSocket(const LocalSocket&) = delete;
    LocalSocket& operator=(const LocalSocket&) = delete;

    /// False, with errno, where nobody listens. What was open is shut before.
    [[nodiscard]] bool Open();
    void Shut();
    bool IsOpen() const
    {
        return m_descriptor >= 0;
    }
    int Descriptor() const ///< -1 where it is shut
    {
        return m_descriptor;
    }
    const std::string& Path() const
    {
        return m_path;
    }

    /// A failure is seen by a later Receive, after what is there.
    void Send(std::string_view bytes);
    /// Appends what is there, at least a byte. False at the end of what the peer sends.
    [[nodiscard]] bool Receive(std::string& bytes);

private:
    const std::string m_path;
    int m_descriptor = -1;
};
