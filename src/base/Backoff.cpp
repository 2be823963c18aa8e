#include "base/Backoff.h"

#include <algorithm>
#include <random>
#include <utility>

namespace
{

double RandomOfThread()
{
    thread_local std::minstd_rand generator{std::random_device{}()};
    return std::uniform_real_distribution<double>(0.0, 1.0)(generator);
}

} // namespace

Portico::Backoff::Backoff()
    : Backoff(RandomOfThread)
{
}

Portico::Backoff::Backoff(Random random)
    : m_random(std::move(random))
{
}

std::chrono::milliseconds Portico::Backoff::Next()
{
    const auto step = static_cast<double>(m_step.count());
    m_step = std::min(m_step * 2, kLongest);
    return std::chrono::milliseconds(static_cast<std::chrono::milliseconds::rep>(step * (0.5 + 0.5 * m_random())));
}

void Portico::Backoff::Reset()
{
    m_step = kFirst;
}
