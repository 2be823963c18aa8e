// Compares the service's building blocks with minimal equivalents in the same run:
//
//     build/release/bench/bench-micro            # medians per 1,000 posts, then ratios
//     build/release/bench/bench-micro --table    # ratios only
//
// A ratio compares medians of CPU time of all threads. The repetitions of all benchmarks are interleaved, so that other
// load affects both sides. Output per ratio: NAME<TAB>VALUE<TAB>UNIT<TAB> without a limit. Parsing a device description
// has no equivalent and is printed in µs.

#include "aggregator/ProductMerge.h"
#include "bench/micro/SampleDescriptions.h"
#include "bench/publish/SampleProducts.h"
#include "runtime/AsyncCallback.h"
#include "runtime/CallbackRegistry.h"
#include "runtime/ConditionSemaphore.h"
#include "runtime/Task.h"
#include "ssdp/XmlFunctions.h"
#include "ssdp/XmlPrecheck.h"
#include <ProtoToMarkup.h>

#include <benchmark/benchmark.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <tinyxml.h>
#include <vector>

namespace
{

constexpr int kBatch = 1000; ///< posts per wait
constexpr unsigned int kWaitMs = 60'000;
constexpr int kRows = 500;

/// A task that exists for one benchmark.
class TaskUnderTest
{
public:
    ~TaskUnderTest()
    {
        IL::StopTask(task);
        IL::JoinTask(task);
    }
    NotifyTargetTaskIF* const task = IL::CreateTask("Bench", "");
};

/// The minimal equivalent of a task: one thread that runs an io_context.
class BareLoop
{
public:
    ~BareLoop()
    {
        context.stop();
        m_thread.join();
    }
    boost::asio::io_context context{1};

private:
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work{context.get_executor()};
    std::thread m_thread{[this] { context.run(); }};
};

/// A task entry with its own class, like the service's entries.
class CountEntry final : public IL::CallbackEntry
{
public:
    CountEntry(int* count, ConditionSemaphore* done)
        : m_count(count)
        , m_done(done)
    {
    }
    void Dispatch() override
    {
        if (++*m_count % kBatch == 0)
        {
            m_done->Signal();
        }
    }

private:
    int* m_count;
    ConditionSemaphore* m_done;
};

// ---- tasks --------------------------------------------------------------------------------------------------

void PostEntry(benchmark::State& state)
{
    ConditionSemaphore done(0);
    int count = 0;
    const TaskUnderTest bench;
    for (auto _ : state)
    {
        for (int post = 0; post < kBatch; ++post)
        {
            bench.task->Post(std::make_shared<CountEntry>(&count, &done));
        }
        done.Wait(kWaitMs);
    }
}

void PostBare(benchmark::State& state)
{
    ConditionSemaphore done(0);
    int count = 0;
    BareLoop loop;
    for (auto _ : state)
    {
        for (int post = 0; post < kBatch; ++post)
        {
            boost::asio::post(loop.context,
                              [&]
                              {
                                  if (++count % kBatch == 0)
                                  {
                                      done.Signal();
                                  }
                              });
        }
        done.Wait(kWaitMs);
    }
}

/// Each entry posts the next one, so only one thread is involved.
void ChainEntry(benchmark::State& state)
{
    ConditionSemaphore done(0);
    const TaskUnderTest bench;
    std::function<void(int)> next = [&](int left)
    { left == 0 ? done.Signal() : IL::BreakThread([&next, left] { next(left - 1); }, bench.task); };
    for (auto _ : state)
    {
        IL::BreakThread([&next] { next(kBatch); }, bench.task);
        done.Wait(kWaitMs);
    }
}

void ChainBare(benchmark::State& state)
{
    ConditionSemaphore done(0);
    BareLoop loop;
    std::function<void(int)> next = [&](int left)
    { left == 0 ? done.Signal() : boost::asio::post(loop.context, [&next, left] { next(left - 1); }); };
    for (auto _ : state)
    {
        boost::asio::post(loop.context, [&next] { next(kBatch); });
        done.Wait(kWaitMs);
    }
}

// ---- callbacks ----------------------------------------------------------------------------------------------

const std::string kArgument = "3c1f5d0a-77e2-4b6e-9a40-000000000001"; // a guid, like most callback arguments

void AsyncCallbackHop(benchmark::State& state)
{
    ConditionSemaphore done(0);
    int count = 0;
    const TaskUnderTest bench;
    const AsyncCallback<std::string> callback(
        [&](const std::string& text)
        {
            benchmark::DoNotOptimize(text.data());
            if (++count % kBatch == 0)
            {
                done.Signal();
            }
        },
        bench.task);
    for (auto _ : state)
    {
        for (int call = 0; call < kBatch; ++call)
        {
            callback(kArgument);
        }
        done.Wait(kWaitMs);
    }
}

void AsyncCallbackBare(benchmark::State& state)
{
    ConditionSemaphore done(0);
    int count = 0;
    BareLoop loop;
    for (auto _ : state)
    {
        for (int call = 0; call < kBatch; ++call)
        {
            boost::asio::post(loop.context,
                              [&, text = kArgument]
                              {
                                  benchmark::DoNotOptimize(text.data());
                                  if (++count % kBatch == 0)
                                  {
                                      done.Signal();
                                  }
                              });
        }
        done.Wait(kWaitMs);
    }
}

void RegistrySend(benchmark::State& state)
{
    int count = 0;
    CallbackRegistry<std::string> registry;
    for (int subscriber = 0; subscriber < state.range(0); ++subscriber)
    {
        registry.Connect([&count](const std::string&) { ++count; });
    }
    for (auto _ : state)
    {
        registry.Send(kArgument, CallbackConnection());
    }
    benchmark::DoNotOptimize(count);
}

void RegistryBare(benchmark::State& state)
{
    int count = 0;
    std::vector<std::function<void(const std::string&)>> functions;
    functions.reserve(static_cast<std::size_t>(state.range(0)));
    for (int subscriber = 0; subscriber < state.range(0); ++subscriber)
    {
        functions.emplace_back([&count](const std::string&) { ++count; });
    }
    for (auto _ : state)
    {
        for (const auto& function : functions)
        {
            function(kArgument);
        }
    }
    benchmark::DoNotOptimize(count);
}

// ---- records ------------------------------------------------------------------------------------------------

void MergeReport(benchmark::State& state)
{
    const Sonarix::Product row = SampleProducts::Row(1);
    const Sonarix::Product report = SampleProducts::Discovered(1);
    for (auto _ : state)
    {
        Sonarix::Product merged = SonarixService::MergeProducts(row, report);
        benchmark::DoNotOptimize(merged);
    }
}

void MergeBare(benchmark::State& state)
{
    const Sonarix::Product row = SampleProducts::Row(1);
    const Sonarix::Product report = SampleProducts::Discovered(1);
    for (auto _ : state)
    {
        Sonarix::Product merged = row;
        merged.MergeFrom(report);
        benchmark::DoNotOptimize(merged);
    }
}

std::string ListAsJson()
{
    return ProtoToMarkup::ToJson(SampleProducts::List(kRows), true, false, false);
}

void ListToJson(benchmark::State& state)
{
    const Sonarix::ProductList list = SampleProducts::List(kRows);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(ProtoToMarkup::ToJson(list, true, false, false));
    }
}

void ListToBinary(benchmark::State& state)
{
    const Sonarix::ProductList list = SampleProducts::List(kRows);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(list.SerializeAsString());
    }
}

void JsonDump(benchmark::State& state)
{
    const auto document = nlohmann::ordered_json::parse(ListAsJson());
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(document.dump());
    }
}

void ListFromJson(benchmark::State& state)
{
    const std::string text = ListAsJson();
    Sonarix::ProductList list;
    for (auto _ : state)
    {
        ProtoToMarkup::FromJson(text, &list, "ProductList");
    }
}

void ListFromBinary(benchmark::State& state)
{
    const std::string bytes = SampleProducts::List(kRows).SerializeAsString();
    for (auto _ : state)
    {
        Sonarix::ProductList list;
        benchmark::DoNotOptimize(list.ParseFromString(bytes));
    }
}

void JsonParse(benchmark::State& state)
{
    const std::string text = ListAsJson();
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(nlohmann::ordered_json::parse(text));
    }
}

void CopyList(benchmark::State& state)
{
    const Sonarix::ProductList list = SampleProducts::List(kRows);
    for (auto _ : state)
    {
        Sonarix::ProductList copy = list;
        benchmark::DoNotOptimize(copy);
    }
}

// ---- ratios -------------------------------------------------------------------------------------------------

struct Ratio
{
    const char* name;
    const char* ours;
    const char* bare;
};

constexpr Ratio kRatios[] = {
    {"post and dispatch / asio post", "PostEntry", "PostBare"},
    {"post from the task itself / asio post", "ChainEntry", "ChainBare"},
    {"AsyncCallback hop / asio post", "AsyncCallbackHop", "AsyncCallbackBare"},
    {"CallbackRegistry, 1 subscriber / function loop", "RegistrySend/1", "RegistryBare/1"},
    {"CallbackRegistry, 20 subscribers / function loop", "RegistrySend/20", "RegistryBare/20"},
    {"merge of a report / MergeFrom", "MergeReport", "MergeBare"},
    {"500 products to JSON / to binary", "ListToJson", "ListToBinary"},
    {"500 products to JSON / JSON library's dump", "ListToJson", "JsonDump"},
    {"500 products from JSON / from binary", "ListFromJson", "ListFromBinary"},
    {"500 products from JSON / JSON library's parse", "ListFromJson", "JsonParse"},
    {"500 products to JSON / copy of the record", "ListToJson", "CopyList"},
};

struct Figure
{
    double nanoseconds = 0; ///< CPU, one iteration
    double spread = 0;      ///< standard deviation / mean
};

/// Collects the median of each benchmark and prints nothing.
class MedianReporter final : public benchmark::BenchmarkReporter
{
public:
    bool ReportContext(const Context& /*context*/) override
    {
        return true;
    }
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs)
        {
            if (run.run_type != Run::RT_Aggregate)
            {
                continue;
            }
            const std::string& arguments = run.run_name.args;
            Figure& figure = figures[run.run_name.function_name + (arguments.empty() ? "" : "/" + arguments)];
            if (run.aggregate_name == "median")
            {
                figure.nanoseconds = run.GetAdjustedCPUTime();
            }
            else if (run.aggregate_name == "cv")
            {
                figure.spread = run.cpu_accumulated_time; // a ratio without time unit
            }
        }
    }

    std::map<std::string, Figure> figures;
};

void ReadDescription(benchmark::State& state, const std::string& text)
{
    for (auto _ : state)
    {
        const char* const why = XmlPrecheck::WhyNotToParse(text);
        TiXmlDocument document;
        const bool isRead = XML::Parse(&document, text);
        benchmark::DoNotOptimize(isRead);
        if (why != nullptr)
        {
            state.SkipWithError(why);
        }
    }
}

const char* const kLarge = "Description";
const char* const kBad = "BadDescription";

void Register()
{
    const auto add = [](const char* name, benchmark::internal::Function* function)
    {
        return benchmark::RegisterBenchmark(name, function)
            ->MeasureProcessCPUTime()
            ->Repetitions(7)
            ->MinTime(0.05)
            ->ReportAggregatesOnly(true);
    };
    add("PostEntry", PostEntry);
    add("PostBare", PostBare);
    add("ChainEntry", ChainEntry);
    add("ChainBare", ChainBare);
    add("AsyncCallbackHop", AsyncCallbackHop);
    add("AsyncCallbackBare", AsyncCallbackBare);
    add("RegistrySend", RegistrySend)->Arg(1)->Arg(20);
    add("RegistryBare", RegistryBare)->Arg(1)->Arg(20);
    add("MergeReport", MergeReport);
    add("MergeBare", MergeBare);
    add("ListToJson", ListToJson);
    add("ListToBinary", ListToBinary);
    add("JsonDump", JsonDump);
    add("ListFromJson", ListFromJson);
    add("ListFromBinary", ListFromBinary);
    add("JsonParse", JsonParse);
    add("CopyList", CopyList);
    const auto addText = [](const std::string& name, const std::string& text)
    {
        benchmark::RegisterBenchmark(name.c_str(), [text](benchmark::State& state) { ReadDescription(state, text); })
            ->MeasureProcessCPUTime()
            ->Repetitions(7)
            ->MinTime(0.05)
            ->ReportAggregatesOnly(true);
    };
    addText(kLarge, SampleDescriptions::Large());
    int number = 0;
    for (const std::string& text : SampleDescriptions::Bad())
    {
        addText(kBad + std::to_string(++number), text);
    }
}

/// The highest figure of benchmarks with this name prefix, in µs.
double Worst(const std::map<std::string, Figure>& figures, const std::string& prefix)
{
    double worst = 0;
    for (const auto& [name, figure] : figures)
    {
        worst = name.starts_with(prefix) ? std::max(worst, figure.nanoseconds / 1000) : worst;
    }
    return worst;
}

} // namespace

int main(int argc, char** argv)
{
    bool isTable = false;
    std::string shuffle = "--benchmark_enable_random_interleaving=true";
    std::vector<char*> arguments{argv[0], shuffle.data()};
    for (int index = 1; index < argc; ++index)
    {
        if (std::strcmp(argv[index], "--table") == 0)
        {
            isTable = true;
        }
        else
        {
            arguments.push_back(argv[index]);
        }
    }
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
    {
        return 2;
    }
    Register();
    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    if (!isTable)
    {
        std::printf("%-20s  %12s  %6s\n", "", "CPU, ns", "spread");
        for (const auto& [name, figure] : reporter.figures)
        {
            std::printf("%-20s  %12.1f  %5.1f%%\n", name.c_str(), figure.nanoseconds, figure.spread * 100);
        }
    }
    for (const Ratio& ratio : kRatios)
    {
        const auto ours = reporter.figures.find(ratio.ours);
        const auto bare = reporter.figures.find(ratio.bare);
        if (ours != reporter.figures.end() && bare != reporter.figures.end())
        {
            std::printf("%s\t%.2f\ttimes\t\n", ratio.name, ours->second.nanoseconds / bare->second.nanoseconds);
        }
    }
    for (const auto& [name, prefix] : {std::pair("device description of 16 KiB, looked over and parsed", kLarge),
                                       std::pair("the worst accepted shape of 64 KiB", kBad)})
    {
        if (const double microseconds = Worst(reporter.figures, prefix); microseconds > 0)
        {
            std::printf("%s\t%.1f\tµs\t\n", name, microseconds);
        }
    }
    return 0;
}
