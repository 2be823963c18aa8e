#include "runtime/MonotonicClock.h"

#include "runtime/engine/Engine.h"

std::time_t MonotonicClock::NowSec()
{
    return static_cast<std::time_t>(NowMs() / 1000);
}

std::int64_t MonotonicClock::NowMs()
{
    return IL::Engine::Current().NowMs();
}
