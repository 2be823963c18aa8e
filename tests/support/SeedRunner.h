#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

/// Runs a test body for many seeds, each in its own process, because the service's main objects form cycles and are
/// never destroyed. The body uses EXPECT_ and ASSERT_:
///
///     SeedRunner::ForEach(SeedRunner::Range(1, 200), [](std::uint64_t seed)
///     {
///         IL::Simulation simulation(seed);
///         ...
///     });
///
/// A failing seed fails the test, with its output and the command that repeats it. With SONARIX_SEED=N in the
/// environment only seed N runs, in the test's own process, so that a debugger can be used.
class SeedRunner
{
public:
    using Body = std::function<void(std::uint64_t seed)>;

    static std::vector<std::uint64_t> Range(std::uint64_t first, std::size_t count);

    /// A seed fails if it takes longer than a minute. Stops at the first failure.
    static void ForEach(const std::vector<std::uint64_t>& seeds, const Body& body);
};
