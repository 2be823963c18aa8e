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

/// On whichever thread faulted. It allocates and logs all the same: a fault in here kills the process at once.
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
    // Outside the try block: an exception leaves the process without a destructor, the controller's above all.
    std::shared_ptr<DiscoveryServiceController> controller;
    try
    {
        DPrint::Initialize();
        SystemUtils::ThereCanBeOnlyOne();
        std::signal(SIGPIPE, SIG_IGN); // a write to a closed socket comes back as an error
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
