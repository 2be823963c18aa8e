// Runs scenarios of consecutive seeds for a given time, or of listed seeds, each in its own process, on all CPUs.

#include "tests/simulation/Scenario.h"
#include "tests/support/ForkedRun.h"
#include "tools/clients/options/Options.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr const char* kUsage =
    "simulation-soak --seconds N [--first-seed S] [--jobs J]   seeds S, S+1, ... for N seconds; S is random by "
    "default\n"
    "                    (or set by the environment variable SONARIX_FIRST_SEED)\n"
    "simulation-soak --list FILE [--jobs J]                    the seeds at the beginning of the lines of FILE\n"
    "simulation-soak --seed S                                  one seed, in this process\n"
    "SONARIX_LOG=0 prints the scenario's events, SONARIX_LOG=3 also the service's log.\n";

/// Timeout of one seed. Far above the longest scenario on a loaded machine with sanitizers.
constexpr std::chrono::seconds kSeedLimit{1200};

struct Sum
{
    std::uint64_t seeds = 0;
    std::uint64_t events = 0;
    std::uint64_t comparisons = 0;
    std::uint64_t failures = 0;
};

int RunSeed(std::uint64_t seed)
{
    Scenario scenario(seed);
    const std::string failure = scenario.Run();
    std::printf("%" PRIu64 " %zu\n%s", scenario.Events(), scenario.Comparisons(), failure.c_str());
    return failure.empty() ? 0 : 1;
}

/// The work of one job: every `jobs`th seed from `first` until `end`, or every `jobs`th entry of the list.
Sum Work(const std::string& program, const std::vector<std::uint64_t>& list, std::uint64_t first, std::uint64_t jobs,
         Clock::time_point end)
{
    Sum sum;
    for (std::uint64_t n = first; list.empty() ? Clock::now() < end : n < list.size(); n += jobs)
    {
        const std::uint64_t seed = list.empty() ? n : list[n];
        const ForkedResult result = RunForked([seed] { return RunSeed(seed); }, kSeedLimit);
        std::uint64_t events = 0;
        std::uint64_t comparisons = 0;
        const bool isCounted = std::sscanf(result.m_output.c_str(), "%" SCNu64 " %" SCNu64, &events, &comparisons) == 2;
        ++sum.seeds;
        sum.events += events;
        sum.comparisons += comparisons;
        if (!result.Succeeded() || !isCounted)
        {
            ++sum.failures;
            std::printf("seed %" PRIu64 " failed (%s); alone: %s --seed %" PRIu64 "\n%s\n", seed,
                        result.HowItEnded().c_str(), program.c_str(), seed, result.m_output.c_str());
            std::fflush(stdout);
        }
    }
    return sum;
}

int Soak(const std::string& program, const std::vector<std::uint64_t>& list, std::uint64_t first,
         std::chrono::seconds duration, std::uint64_t jobs)
{
    const Clock::time_point start = Clock::now();
    int ends[2];
    if (::pipe(ends) != 0)
    {
        std::perror("pipe");
        return 2;
    }
    std::fflush(stdout);
    for (std::uint64_t job = 0; job < jobs; ++job)
    {
        if (::fork() == 0)
        {
            const Sum sum = Work(program, list, first + job, jobs, start + duration);
            ::_exit(::write(ends[1], &sum, sizeof sum) == static_cast<ssize_t>(sizeof sum) ? 0 : 1);
        }
    }
    ::close(ends[1]);
    Sum total;
    Sum sum;
    std::uint64_t reports = 0;
    for (; ::read(ends[0], &sum, sizeof sum) == static_cast<ssize_t>(sizeof sum); ++reports)
    {
        total.seeds += sum.seeds;
        total.events += sum.events;
        total.comparisons += sum.comparisons;
        total.failures += sum.failures;
    }
    while (::wait(nullptr) > 0)
    {
    }
    const std::chrono::duration<double> took = Clock::now() - start;
    std::printf(
        "%" PRIu64 " seeds, %" PRIu64 " events (%.0f a second), %" PRIu64 " table comparisons, %" PRIu64 " failures\n",
        total.seeds, total.events, static_cast<double>(total.events) / took.count(), total.comparisons, total.failures);
    return total.failures == 0 && reports == jobs && (total.seeds > 0 || duration.count() == 0) ? 0 : 1;
}

std::vector<std::uint64_t> ReadList(const std::string& path)
{
    std::vector<std::uint64_t> seeds;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
    {
        if (!line.empty() && line.front() != '#')
        {
            seeds.push_back(std::strtoull(line.c_str(), nullptr, 10));
        }
    }
    return seeds;
}

} // namespace

int main(int argc, char** argv)
{
    Options options({"seconds", "first-seed", "jobs", "list", "seed"});
    const bool isUnderstood = options.Parse(argc, argv) && options.Words().empty();
    if (!isUnderstood || options.WantsHelp())
    {
        std::fputs(kUsage, isUnderstood ? stdout : stderr);
        return isUnderstood ? 0 : 2;
    }
    if (options.WantsVersion())
    {
        std::puts("simulation-soak " SONARIX_VERSION);
        return 0;
    }
    const auto number = [&options](const std::string& option, std::uint64_t otherwise)
    { return std::strtoull(options.Get(option, std::to_string(otherwise)).c_str(), nullptr, 10); };
    if (options.Get("seed"))
    {
        return RunSeed(number("seed", 0));
    }
    const std::uint64_t jobs = std::max<std::uint64_t>(1, number("jobs", std::thread::hardware_concurrency()));
    if (const std::optional<std::string> list = options.Get("list"))
    {
        return Soak(argv[0], ReadList(*list), 0, {}, jobs);
    }
    const char* const fixed = std::getenv("SONARIX_FIRST_SEED");
    const std::uint64_t otherwise = fixed != nullptr ? std::strtoull(fixed, nullptr, 10) : std::random_device()();
    const std::uint64_t first = number("first-seed", otherwise);
    const auto duration = std::chrono::seconds(number("seconds", 60));
    std::printf("seeds from %" PRIu64 " for %lld s in %" PRIu64 " processes\n", first,
                static_cast<long long>(duration.count()), jobs);
    return Soak(argv[0], {}, first, duration, jobs);
}
