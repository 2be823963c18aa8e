#include "tools/simulated/Simulator.h"

#include "runtime/Task.h"

#include <algorithm>
#include <cstdlib>
#include <future>
#include <iostream>
#include <sstream>
#include <sys/resource.h>

bool RangeCommand::Parse(const std::string& command, std::size_t count, std::string& error)
{
    std::istringstream words(command);
    std::size_t last = 0;
    std::string more;
    words >> verb;
    if (!(words >> begin >> last) || words >> more || begin > last || last >= count)
    {
        error = "error " + verb + " takes two indices from 0 to " + std::to_string(count - 1);
        return false;
    }
    end = last + 1;
    return true;
}

void ServeCommands(const std::string& program, std::size_t count,
                   const std::function<std::unique_ptr<Simulator>(NotifyTargetTaskIF*)>& make)
{
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
