#include "service/ServiceEntry.h"

#include "runtime/DPrint.h"
#include "runtime/SystemUtils.h"
#include "service/DiscoveryServiceController.h"

#include <csignal>
#include <exception>
#include <iostream>
#include <memory>

#include <unistd.h>

namespace SonarixService
{

namespace
{

const DPrint s_log("SonarixService");

/// Runs on the thread that faulted. It allocates and logs although that is not async-signal-safe: SIGSEGV has its
/// default action from the first line on, so a second fault kills the process at once.
void HandleSegmentationFault(int /*signal*/)
{
    std::signal(SIGSEGV, SIG_DFL);
    LogCrash([] { return backtrace(); });
    _exit(1);
}

} // namespace

void LogCrash(const std::function<std::vector<std::string>()>& takeBacktrace)
{
    DPRINTF(s_log, DPrint::LEVEL_ERROR, "------- SonarixService Segmentation Fault Start --------");
    for (const std::string& frame : takeBacktrace())
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "%s", frame.empty() ? "<unresolved>" : frame.c_str());
    }
    DPRINTF(s_log, DPrint::LEVEL_ERROR, "-------- SonarixService Segmentation Fault End ---------");
    DPRINTF(s_log, DPrint::LEVEL_ERROR, "-------- SonarixService Shutting Down Cleanly where possible ---------");
}

int RunService()
{
    // Outside the try block: after an exception the controller's destructor must not run.
    std::shared_ptr<DiscoveryServiceController> controller;
    try
    {
        DPrint::Initialize();
        SystemUtils::ThereCanBeOnlyOne();
        std::signal(SIGPIPE, SIG_IGN); // a write to a closed socket returns an error instead
        std::signal(SIGSEGV, HandleSegmentationFault);
        controller = std::make_shared<DiscoveryServiceController>();
        controller->Initialize();
        controller->JoinTasks();
        controller.reset();
        return 0;
    }
    catch (const std::exception& failure)
    {
        std::clog << "SonarixService: Caught top level exception: " << failure.what() << std::endl;
        _exit(1);
    }
}

} // namespace SonarixService
