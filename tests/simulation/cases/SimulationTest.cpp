#include "tests/simulation/Scenario.h"
#include "tests/support/SeedRunner.h"

#include <gtest/gtest.h>

// A few short scenarios, for every build. tests/simulation/Main.cpp runs long ones.
TEST(SimulationTest, ServiceMatchesModelAfterEachQuietTime)
{
    SeedRunner::ForEach(SeedRunner::Range(1, 5), [](std::uint64_t seed) { EXPECT_EQ(Scenario(seed).Run(1), ""); });
}
