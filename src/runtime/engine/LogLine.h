#pragma once

#include <chrono>
#include <cstddef>
#include <string>

/// How a line of the log looks. Pure text work, for DPrint.
namespace LogLine
{

/// Longest line, its newline included; a longer one ends in an ellipsis.
constexpr std::size_t kMaxBytes = std::size_t{16} * 1024;

/// "2026-01-31T12:00:00.123 3 MdnsService: text\n", time in UTC.
std::string Plain(const std::string& channel, int level, const std::string& text,
                  std::chrono::system_clock::time_point time);

/// "<6>MdnsService: text\n", the form in which journald reads a priority from a service's standard error.
std::string Journal(const std::string& channel, int level, const std::string& text);

/// Appends `text` to `line` until `limit` bytes: line ends with what is indented after them become one blank, other
/// control characters and bytes that are no UTF-8 become \xNN, so that a name from the LAN can neither begin a line
/// of its own nor steer a terminal. False: cut off there.
bool AppendEscaped(std::string& line, const std::string& text, std::size_t limit);

} // namespace LogLine
