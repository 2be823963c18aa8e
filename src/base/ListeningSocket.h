#pragma once

#include <string>
#include <sys/types.h>

/// A Unix stream socket that listens, with its file. Owns the descriptor until that is taken, and the file.
/// Any thread, one at a time.
class ListeningSocket final
{
public:
    ListeningSocket() = default;
    ~ListeningSocket();
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;

    /// Makes the file, with that mode from the first moment in which anybody can connect. One that nobody listens on is
    /// replaced. Empty on success, else what is wrong.
    [[nodiscard]] std::string Open(const std::string& path, mode_t mode);

    /// The caller's from here on.
    int Release();

    /// Removes the file, where it is still the one that was made.
    void RemoveFile();

private:
    std::string Bind(const std::string& path, mode_t mode);

    int m_descriptor = -1;
    std::string m_path; ///< empty: no file is ours
    dev_t m_device = 0;
    ino_t m_inode = 0;
};
