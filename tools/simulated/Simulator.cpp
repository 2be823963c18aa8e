#include "tools/simulated/Simulator.h"

#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "tools/clients/options/Options.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <future>
#include <iostream>
#include <sstream>
#include <sys/resource.h>

namespace
{

/// Raises the limit of open files to `wanted`, or as far as this process is allowed to.
void RaiseDescriptorLimit(std::size_t wanted)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
    {
        return;
    }
    const rlim_t most = std::max<rlim_t>(wanted, limit.rlim_max);
    const rlimit more{most, most};
    if (setrlimit(RLIMIT_NOFILE, &more) != 0)
    {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace

void Simulator::Run(const std::string& command, const Answer& answer)
{
    TASK_CHECK(m_task);
    std::istringstream words(command);
    std::string verb;
    words >> verb;
    if (command == "stats")
    {
        answer("ok " + Stats() + " cpu_ms=" + std::to_string(std::clock() / (CLOCKS_PER_SEC / 1000)));
        return;
    }
    const auto action = m_actions.find(verb);
    if (action == m_actions.end())
    {
        answer("error unknown command " + verb);
        return;
    }
    Range range;
    std::size_t last = 0;
    std::string more;
    if (!(words >> range.begin >> last) || words >> more || range.begin > last || last >= m_count)
    {
        answer("error " + verb + " takes two indices from 0 to " + std::to_string(m_count - 1));
        return;
    }
    range.end = last + 1;
    const auto line = std::make_shared<std::string>("ok " + verb + " " + std::to_string(range.end - range.begin));
    const Pending pending(nullptr, [answer, line](void*) { answer(*line); });
    if (std::string error; !action->second(range, pending, error))
    {
        *line = "error " + error;
    }
}

Simulator::Action Simulator::ForEach(const std::function<void(std::size_t device, const Pending&)>& action)
{
    return [action](const Range& range, const Pending& pending, std::string&)
    {
        for (std::size_t device = range.begin; device < range.end; ++device)
        {
            action(device, pending);
        }
        return true;
    };
}

void ServeCommands(const std::string& program, const Options& options, std::size_t count, std::size_t socketsEach,
                   const std::function<std::unique_ptr<Simulator>(NotifyTargetTaskIF*)>& make)
{
    std::signal(SIGPIPE, SIG_IGN);
    DPrint::Initialize();
    if (options.Has("quiet"))
    {
        DPrint::SetLevels("1");
    }
    RaiseDescriptorLimit(count * socketsEach + 64);
    NotifyTargetTaskIF* const task = IL::CreateTask("Simulator", "");
    std::unique_ptr<Simulator> simulator;
    std::promise<std::string> started; // empty: success
    IL::BreakThread(
        [&]
        {
            std::string error;
            simulator = make(task);
            started.set_value(simulator->Start(error) ? std::string() : error);
        },
        task);
    const std::string error = started.get_future().get();
    if (!error.empty())
    {
        std::cerr << program << ": " << error << std::endl;
        std::_Exit(1);
    }
    std::cout << "ready " << count << std::endl;
    for (std::string line; std::getline(std::cin, line) && line != "quit";)
    {
        std::promise<std::string> answered;
        IL::BreakThread(
            [&] { simulator->Run(line, [&answered](const std::string& answer) { answered.set_value(answer); }); },
            task);
        std::cout << answered.get_future().get() << std::endl;
    }
    std::cout.flush();
    std::_Exit(0); // the task still runs, so its objects are not destroyed
}

std::string ReadNetwork(const Options& options, const std::string& defaultAddress, std::string& interface,
                        std::uint32_t& firstAddress)
{
    interface = options.Get("interface", "");
    in_addr address{};
    if (inet_pton(AF_INET, options.Get("first-address", defaultAddress).c_str(), &address) != 1)
    {
        return "--first-address takes an IPv4 address";
    }
    firstAddress = ntohl(address.s_addr);
    return interface.empty() ? "--interface is needed" : "";
}
