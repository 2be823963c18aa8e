#include "base/ListeningSocket.h"

#include "tests/support/TempDirectory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/file.h>
#include <unistd.h>

TEST(ListeningSocketTest, LockedDirectoryDoesNotDelayOpen)
{
    const TempDirectory directory;
    const int lock = ::open(directory.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(::flock(lock, LOCK_EX | LOCK_NB), 0);
    const auto before = std::chrono::steady_clock::now();
    ListeningSocket socket;
    EXPECT_EQ(socket.Open(directory.Path() + "/socket", 0600), "");
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(500));
    ::close(lock);
}

TEST(ListeningSocketTest, RemoveFileKeepsAFileThatReplacedIt)
{
    const TempDirectory directory;
    const std::string path = directory.Path() + "/socket";
    ListeningSocket socket;
    ASSERT_EQ(socket.Open(path, 0600), "");
    std::filesystem::remove(path);
    std::ofstream(path) << "text";
    socket.RemoveFile();
    EXPECT_TRUE(std::filesystem::exists(path));
}
