#include "runtime/engine/RandomSequence.h"

#include <bit>

namespace IL
{

std::uint64_t MixBits(std::uint64_t value)
{
    value += 0x9E3779B97F4A7C15U;
    value = (value ^ (value >> 30U)) * 0xBF58476D1CE4E5B9U;
    value = (value ^ (value >> 27U)) * 0x94D049BB133111EBU;
    return value ^ (value >> 31U);
}

RandomSequence::RandomSequence(std::uint64_t seed)
{
    for (std::uint64_t& word : m_state)
    {
        word = MixBits(seed);
        seed += 0x9E3779B97F4A7C15U;
    }
}

std::uint64_t RandomSequence::Next()
{
    const std::uint64_t result = std::rotl(m_state[1] * 5, 7) * 9;
    const std::uint64_t shifted = m_state[1] << 17U;
    m_state[2] ^= m_state[0];
    m_state[3] ^= m_state[1];
    m_state[1] ^= m_state[2];
    m_state[0] ^= m_state[3];
    m_state[2] ^= shifted;
    m_state[3] = std::rotl(m_state[3], 45);
    return result;
}

std::uint64_t RandomSequence::Below(std::uint64_t bound)
{
    if (bound == 0)
    {
        return 0;
    }
    // Modulo bias: rejecting numbers below 2^64 mod bound leaves each remainder equally likely.
    const std::uint64_t uneven = (0 - bound) % bound;
    std::uint64_t number = Next();
    while (number < uneven)
    {
        number = Next();
    }
    return number % bound;
}

} // namespace IL
