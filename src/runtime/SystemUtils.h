#pragma once

#include <optional>
#include <string>
#include <vector>

class SystemUtils
{
public:
    /// Content of a regular file. nullopt if it is missing (not logged) or unreadable (one level-1 line).
    static std::optional<std::string> ReadFile(const std::string& path);

    /// Creates the run directory (mode 0755) if it is missing, and holds the single-instance lock in it until the
    /// process ends. If another instance holds it, prints its pid to standard error and exits with status 1.
    static void ThereCanBeOnlyOne();

    /// Returns the run directory: SONARIX_RUN_DIR, or "/run/sonarix".
    static std::string RunDir();
};

/// One string per stack frame of the caller, innermost first; empty for a frame that cannot be resolved.
std::vector<std::string> backtrace();
