#pragma once

#include <array>
#include <cstdint>

namespace IL
{

/// xoshiro256** seeded by splitmix64. One seed gives the same numbers with every compiler and library, which
/// std::uniform_int_distribution does not guarantee. For simulation, not for secrets. A value; not synchronised.
class RandomSequence
{
public:
    explicit RandomSequence(std::uint64_t seed);

    std::uint64_t Next();
    /// Uniform in [0, bound), without modulo bias; 0 for a bound of 0.
    std::uint64_t Below(std::uint64_t bound);

private:
    std::array<std::uint64_t, 4> m_state;
};

/// One step of splitmix64: a hash of 64 bits.
std::uint64_t MixBits(std::uint64_t value);

} // namespace IL
