#pragma once

#include <string>

namespace IL
{

/// Text of the exception being handled: what() of a std::exception, else the name of its type.
/// Only inside a catch clause.
std::string CaughtExceptionText();

/// Logs at level 1 the exception being handled, as uncaught in an entry of the task `taskName`.
/// Only inside a catch clause; never throws.
void LogCaughtException(const std::string& taskName) noexcept;

} // namespace IL
