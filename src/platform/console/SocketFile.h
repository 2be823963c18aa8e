#pragma once

#include <string>
#include <sys/types.h>

namespace Console
{

/// A listening Unix socket with its file. Removes the file with its own end, if it is still that one.
/// One thread at a time.
class SocketFile final
{
public:
    SocketFile() = default;
    ~SocketFile();
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;

    /// Makes it with mode 0600 from its first moment on. A socket that nobody listens to, as a crash leaves it, is
    /// replaced; one with a listener, or a file of another kind, stays. False, with the reason in `error`.
    [[nodiscard]] bool Listen(const std::string& path, std::string& error);

    /// The descriptor, non-blocking, is the caller's from then on; -1 where there is none.
    int Release();

private:
    std::string m_path;
    int m_socket = -1;
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

} // namespace Console
