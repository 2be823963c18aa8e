#pragma once

#include "runtime/DPrint.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

/// What fuzzers share.
namespace Fuzz
{

/// Ends the process where it does not hold: a finding.
inline void Require(bool holds, const char* what)
{
    if (!holds)
    {
        std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

/// Every line of the log is made up to this level, and goes nowhere.
inline void Log(const char* levels)
{
    DPrint::SetLevels(levels);
    DPrint::SetSink([](const std::string&, DPrint::Level, const std::string&) {});
}

/// Requires at its end that its scope has taken no more processor time than kMaxSeconds.
class TimeLimit final
{
public:
    TimeLimit() = default;
    ~TimeLimit()
    {
        Require(Now() - m_begin < kMaxSeconds, "it takes too long");
    }
    TimeLimit(const TimeLimit&) = delete;
    TimeLimit& operator=(const TimeLimit&) = delete;

    /// On a machine for development, with sanitizers: a small device is as slow without them.
    static constexpr double kMaxSeconds = 0.1;

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
