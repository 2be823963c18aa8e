#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

class World;

/// A month of a product's life among its neighbours, all of it decided by one number: bursts in which anything may
/// happen at any time, each followed by a quiet time, after which the pages must be right. Most lives have 30 devices
/// around, one in twenty has 300. One to a process.
class Scenario final
{
public:
    explicit Scenario(std::uint64_t seed);
    ~Scenario();
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    /// Ends early with the first thing that is wrong, told in the result; empty: nothing was.
    std::string Run(int days = 30);

    std::uint64_t Events() const; ///< that the simulation has dispatched
    std::size_t Comparisons() const;

private:
    class Script;

    const std::unique_ptr<World> m_world;
    const std::unique_ptr<Script> m_script;
};
