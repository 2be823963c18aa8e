#pragma once

#include <optional>
#include <string>
#include <vector>

class SystemUtils
{
public:
    /// The whole file, or nothing where it is missing (silently) or unreadable (one level-1 line).
    static std::optional<std::string> ReadFile(const std::string& path);

    /// Makes SONARIX_RUN_DIR (mode 0755) where it is missing and takes the single-instance lock in it for the
    /// life of the process. Where another instance holds it, prints who to standard error and leaves with status 1.
    static void ThereCanBeOnlyOne();

    /// SONARIX_RUN_DIR, or "/run/sonarix".
    static std::string RunDir();
};

/// One string per stack frame, in the order of the stack; a frame that cannot be resolved is an empty string.
std::vector<std::string> backtrace();
