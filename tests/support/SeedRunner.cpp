#include "tests/support/SeedRunner.h"

#include "tests/support/ForkedRun.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <numeric>
#include <string>

namespace
{

std::string CommandFor(std::uint64_t seed)
{
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    return "SONARIX_SEED=" + std::to_string(seed) + ' ' + std::filesystem::read_symlink("/proc/self/exe").string() +
           " --gtest_filter=" + test.test_suite_name() + '.' + test.name();
}

} // namespace

std::vector<std::uint64_t> SeedRunner::Range(std::uint64_t first, std::size_t count)
{
    std::vector<std::uint64_t> seeds(count);
    std::iota(seeds.begin(), seeds.end(), first);
    return seeds;
}

void SeedRunner::ForEach(const std::vector<std::uint64_t>& seeds, const Body& body)
{
    const char* const only = std::getenv("SONARIX_SEED");
    if (only != nullptr && *only != '\0')
    {
        body(std::strtoull(only, nullptr, 10));
        return;
    }
    for (const std::uint64_t seed : seeds)
    {
        const ForkedResult result = RunForked(
            [&]
            {
                body(seed);
                return testing::Test::HasFailure() ? 1 : 0;
            });
        if (!result.Succeeded())
        {
            ADD_FAILURE() << "seed " << seed << " failed (" << result.HowItEnded() << "); alone: " << CommandFor(seed)
                          << '\n'
                          << result.m_output;
            return; // HasFailure() would be true for all later seeds
        }
    }
}
