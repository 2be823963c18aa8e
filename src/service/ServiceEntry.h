#pragma once

#include <functional>
#include <string>
#include <vector>

namespace SonarixService
{

/// The process: logging, the single instance, the signals, the controller. Runs on the main thread, for its life.
/// Returns only where the controller's task has ended; a std::exception on the way ends the process with status 1.
int RunService();

/// Logs a crash: the start line, one line a frame of `takeBacktrace`, the two end lines.
void LogCrash(const std::function<std::vector<std::string>()>& takeBacktrace);

} // namespace SonarixService
