#pragma once

#include <chrono>
#include <functional>

namespace Portico
{

/// Growing pauses with jitter: each between half and the whole of a step that doubles from kFirst to kLongest, so
/// that hundreds of clients of one gateway do not come back in one instant. A value of one task.
class Backoff
{
public:
    static constexpr std::chrono::milliseconds kFirst{100};
    static constexpr std::chrono::milliseconds kLongest{5000};

    using Random = std::function<double()>; ///< uniform in [0, 1)
    Backoff();                              ///< with a random number of the process
    explicit Backoff(Random random);

    std::chrono::milliseconds Next();
    void Reset();

private:
    Random m_random;
    std::chrono::milliseconds m_step = kFirst;
};

} // namespace Portico
