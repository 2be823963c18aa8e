#pragma once

#include <string>

namespace IL
{

/// The text of the exception being handled: what() of a standard one, the type's name of any other.
/// Only inside a catch clause.
std::string CaughtExceptionText();

/// Logs, at level 1, the exception being handled as one that left an entry of the task `taskName`.
/// Only inside a catch clause; never throws.
void LogCaughtException(const std::string& taskName) noexcept;

} // namespace IL
