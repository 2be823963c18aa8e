#include "runtime/SystemUtils.h"

#include "base/Descriptor.h"
#include "runtime/DPrint.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace
{

const DPrint s_log("SystemUtils");

/// Returns 0 or an errno.
int ReadAll(int fd, std::string& text)
{
    std::array<char, 4096> buffer;
    for (;;)
    {
        const ssize_t count = ::read(fd, buffer.data(), buffer.size());
        if (count == 0)
        {
            return 0;
        }
        if (count > 0)
        {
            text.append(buffer.data(), static_cast<std::size_t>(count));
        }
        else if (errno != EINTR)
        {
            return errno;
        }
    }
}

[[noreturn]] void ExitWithError(const std::string& why)
{
    std::fprintf(stderr, "sonarix-service: %s\n", why.c_str());
    std::exit(EXIT_FAILURE);
}

/// Creates the directory with mode 0755 regardless of the umask, and its missing parents.
void MakeDirectory(const std::string& path)
{
    std::error_code error;
    if (std::filesystem::is_directory(path, error))
    {
        return;
    }
    // "/." makes parent_path() the directory itself, also if `path` ends in a slash.
    const std::filesystem::path directory = std::filesystem::path(path + "/.").lexically_normal().parent_path();
    if (directory.has_parent_path())
    {
        std::filesystem::create_directories(directory.parent_path(), error);
    }
    const bool made = ::mkdir(directory.c_str(), 0755) == 0;
    if ((!made && errno != EEXIST) || (made && ::chmod(directory.c_str(), 0755) != 0))
    {
        ExitWithError("cannot make the run directory " + path + ": " + std::strerror(errno));
    }
}

/// Returns "process 123 (name)", with the pid from the lock file.
std::string HolderFromLockFile(int lockFile)
{
    std::string pid;
    ReadAll(lockFile, pid);
    pid.resize(std::min(pid.find_first_not_of("0123456789"), pid.size()));
    if (pid.empty())
    {
        return "another process";
    }
    std::string name = SystemUtils::ReadFile("/proc/" + pid + "/comm").value_or("");
    name.resize(std::min(name.find('\n'), name.size()));
    return "process " + pid + (name.empty() ? "" : " (" + name + ')');
}

} // namespace

std::optional<std::string> SystemUtils::ReadFile(const std::string& path)
{
    // O_NONBLOCK: opening a FIFO must not wait for a writer.
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.Get() < 0 && (errno == ENOENT || errno == ENOTDIR))
    {
        return std::nullopt;
    }
    int error = file.Get() < 0 ? errno : 0;
    std::string text;
    struct stat status = {};
    if (error == 0 && fstat(file.Get(), &status) != 0)
    {
        error = errno;
    }
    if (error == 0 && !S_ISREG(status.st_mode))
    {
        error = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    if (error == 0)
    {
        error = ReadAll(file.Get(), text);
    }
    if (error != 0)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, "cannot read " << path << ": " << std::generic_category().message(error));
        return std::nullopt;
    }
    return text;
}

std::string SystemUtils::RunDir()
{
    const char* const directory = std::getenv("SONARIX_RUN_DIR");
    return directory != nullptr && *directory != '\0' ? directory : "/run/sonarix";
}

void SystemUtils::ThereCanBeOnlyOne()
{
    const std::string directory = RunDir();
    MakeDirectory(directory);

    // Never closed: the kernel releases the lock when the process ends.
    const std::string path = directory + "/sonarix-service.lock";
    const int lockFile = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lockFile < 0)
    {
        ExitWithError("cannot open the lock file " + path + ": " + std::strerror(errno));
    }
    if (::flock(lockFile, LOCK_EX | LOCK_NB) != 0)
    {
        if (errno != EWOULDBLOCK)
        {
            ExitWithError("cannot lock " + path + ": " + std::strerror(errno));
        }
        ExitWithError("already running: " + HolderFromLockFile(lockFile) + " holds " + path);
    }
    const std::string pid = std::to_string(::getpid()) + '\n';
    if (::ftruncate(lockFile, 0) != 0 || ::write(lockFile, pid.data(), pid.size()) < 0)
    {
        s_log.LogWarning("cannot write our pid into %s: %s", path.c_str(), std::strerror(errno));
    }
}
