#pragma once

#include <string>
#include <sys/types.h>

/// A listening Unix stream socket and its file. Owns the file, and the descriptor until Release().
/// Safe from any thread, one at a time.
class ListeningSocket final
{
public:
    ListeningSocket() = default;
    ~ListeningSocket();
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;

    /// Creates the socket file, with `mode` before a client can connect. Replaces the file of a socket on which no
    /// process listens. Returns the error, empty on success.
    [[nodiscard]] std::string Open(const std::string& path, mode_t mode);

    /// Passes the descriptor to the caller.
    int Release();

    /// Removes the file unless another file has replaced it.
    void RemoveFile();

private:
    std::string Bind(const std::string& path, mode_t mode);

    int m_descriptor = -1;
    std::string m_path; ///< empty: owns no file
    dev_t m_device = 0;
    ino_t m_inode = 0;
};
