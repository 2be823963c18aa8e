#include "SeedRunner.h"

#include "ForkedRun.h"

#include <climits>
#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <unistd.h>

namespace
{

std::optional<std::uint64_t> SeedFromEnvironment()
{
    const char* const seed = std::getenv("SONARIX_SEED");
    if (seed == nullptr || *seed == '\0')
    {
        return std::nullopt;
    }
    return std::strtoull(seed, nullptr, 10);
}

/// Whether `body` itself failed; what failed in the test before it does not count.
bool BodySucceeds(const SeedRunner::Body& body, std::uint64_t seed)
{
    const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
    const int before = result.total_part_count();
    body(seed);
    for (int part = before; part < result.total_part_count(); ++part)
    {
        if (result.GetTestPartResult(part).failed())
        {
            return false;
        }
    }
    return true;
}

std::string CommandFor(std::uint64_t seed)
{
    char program[PATH_MAX] = "";
    const ssize_t length = ::readlink("/proc/self/exe", program, sizeof program - 1);
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    return "SONARIX_SEED=" + std::to_string(seed) + ' ' +
           std::string(program, length > 0 ? static_cast<std::size_t>(length) : 0) +
           " --gtest_filter=" + test.test_suite_name() + '.' + test.name();
}

} // namespace

std::vector<std::uint64_t> SeedRunner::Range(std::uint64_t first, std::size_t count)
{
    std::vector<std::uint64_t> seeds(count);
    for (std::uint64_t& seed : seeds)
    {
        seed = first++;
    }
    return seeds;
}

void SeedRunner::ForEach(const std::vector<std::uint64_t>& seeds, const Body& body, std::chrono::milliseconds limit)
{
    if (const std::optional<std::uint64_t> only = SeedFromEnvironment())
    {
        body(*only);
        return;
    }
    std::size_t failures = 0;
    for (const std::uint64_t seed : seeds)
    {
        const ForkedResult result = RunForked([&] { return BodySucceeds(body, seed) ? 0 : 1; }, limit);
        if (result.Succeeded())
        {
            continue;
        }
        ADD_FAILURE() << "seed " << seed << " failed (" << result.HowItEnded() << "); alone: " << CommandFor(seed)
                      << '\n'
                      << result.m_output;
        if (++failures == kMaxFailures)
        {
            break;
        }
    }
}
