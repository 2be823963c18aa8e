#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

/// Runs a test body under many seeds, each in a process of its own: the main objects of a service hold each other
/// on purpose and are never torn down. The body uses EXPECT_ and ASSERT_ as any test:
///
///     SeedRunner::ForEach(SeedRunner::Range(1, 200), [](std::uint64_t seed)
///     {
///         IL::Simulation simulation(seed);
///         ...
///     });
///
/// A failing seed fails the test with what it printed and the command that runs it again alone. With SONARIX_SEED=N
/// in the environment only that seed runs, within the test's own process, ready for a debugger.
class SeedRunner
{
public:
    using Body = std::function<void(std::uint64_t seed)>;

    static std::vector<std::uint64_t> Range(std::uint64_t first, std::size_t count);

    /// A seed that takes longer than a minute is killed and has failed. Ends with the first that fails.
    static void ForEach(const std::vector<std::uint64_t>& seeds, const Body& body);
};
