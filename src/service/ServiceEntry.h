#pragma once

#include <functional>
#include <string>
#include <vector>

namespace SonarixService
{

/// Runs the whole process on the main thread: starts logging, ensures a single instance, sets the signal actions, and
/// creates the controller. Returns 0 when the controller's task has ended. A std::exception ends the process with
/// status 1.
int RunService();

/// Logs a crash: the start line, one line for each frame of `takeBacktrace`, and the two end lines.
void LogCrash(const std::function<std::vector<std::string>()>& takeBacktrace);

} // namespace SonarixService
