#include "tests/simulation/Scenario.h"
#include "tests/support/SeedRunner.h"

#include <gtest/gtest.h>

// A few short lives, for each build; tests/simulation/Main.cpp runs long ones.
TEST(SimulationTest, AfterEachQuietTimeThePagesAreAsTheWorldHasIt)
{
    SeedRunner::ForEach(SeedRunner::Range(1, 5), [](std::uint64_t seed) { EXPECT_EQ(Scenario(seed).Run(1), ""); });
}
