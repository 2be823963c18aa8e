#pragma once

#include "runtime/DPrint.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

/// Shared by the fuzzers.
namespace Fuzz
{

/// Aborts if the condition is false, which libFuzzer reports as a crash.
inline void Require(bool holds, const char* what)
{
    if (!holds)
    {
        std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

/// Log lines up to `levels` are formatted and discarded.
inline void Log(const char* levels)
{
    DPrint::SetLevels(levels);
    DPrint::SetSink([](const std::string&, DPrint::Level, const std::string&) {});
}

/// The destructor requires that the scope used at most kMaxSeconds of CPU time.
class TimeLimit final
{
public:
    TimeLimit() = default;
    ~TimeLimit()
    {
        Require(Now() - m_begin < kMaxSeconds, "input takes too long");
    }
    TimeLimit(const TimeLimit&) = delete;
    TimeLimit& operator=(const TimeLimit&) = delete;

    /// For a development machine with sanitizers, which is about as fast as a small device without them. The slowest
    /// inputs take 0.04 s, and on a virtual machine with busy neighbours up to three times as long.
    static constexpr double kMaxSeconds = 0.3;

private:
    static double Now()
    {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
    }

    const double m_begin = Now();
};

} // namespace Fuzz
