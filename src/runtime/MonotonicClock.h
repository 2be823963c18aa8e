#pragma once

#include <cstdint>
#include <ctime>

/// A clock that does not jump. All ageing uses it, never wall-clock time.
/// Under the simulated engine it gives virtual time.
class MonotonicClock
{
public:
    /// Whole seconds.
    static std::time_t NowSec();
    /// Milliseconds, for measuring.
    static std::int64_t NowMs();
};
