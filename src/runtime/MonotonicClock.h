#pragma once

#include <cstdint>
#include <ctime>

/// A clock that never jumps, for all ageing and timeouts. Under the simulated engine it is virtual time. Safe from any
/// thread.
class MonotonicClock
{
public:
    static std::time_t NowSec();
    static std::int64_t NowMs();
};
