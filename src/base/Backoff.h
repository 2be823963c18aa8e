#pragma once

#include <chrono>
#include <functional>

namespace Portico
{

/// Pauses between retries: random between half and the whole of a step, which doubles from kFirst to kLongest. The
/// jitter keeps hundreds of clients of one gateway from reconnecting at one instant. A value, not synchronised.
class Backoff
{
public:
    static constexpr std::chrono::milliseconds kFirst{100};
    static constexpr std::chrono::milliseconds kLongest{5000};

    using Random = std::function<double()>; ///< uniform in [0, 1)
    Backoff();                              ///< with a generator seeded by the operating system
    explicit Backoff(Random random);

    std::chrono::milliseconds Next();
    void Reset();

private:
    Random m_random;
    std::chrono::milliseconds m_step = kFirst;
};

} // namespace Portico
