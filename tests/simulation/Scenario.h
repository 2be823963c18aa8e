#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

class World;

/// A month of random events on the simulated network, determined by the seed: bursts of events, each followed by a
/// quiet time, after which the service's resources are compared with the model. 30 devices; 300 for one seed in twenty.
/// At most one per process.
class Scenario final
{
public:
    explicit Scenario(std::uint64_t seed);
    ~Scenario();
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    /// Stops at the first failure and returns its description. Empty: no failure.
    std::string Run(int days = 30);

    std::uint64_t Events() const; ///< dispatched by the simulation
    std::size_t Comparisons() const;

private:
    class Script;

    const std::unique_ptr<World> m_world;
    const std::unique_ptr<Script> m_script;
};
