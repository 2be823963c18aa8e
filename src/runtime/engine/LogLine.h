#pragma once

#include <chrono>
#include <cstddef>
#include <string>

/// The format of log lines. Stateless.
namespace LogLine
{

/// Longest line in bytes, its newline included; a longer line is cut off and ends in an ellipsis.
constexpr std::size_t kMaxBytes = std::size_t{16} * 1024;

/// "2026-01-31T12:00:00.123 3 MdnsService: text\n", time in UTC.
std::string Plain(const std::string& channel, int level, const std::string& text,
                  std::chrono::system_clock::time_point time);

/// "<6>MdnsService: text\n", the priority prefix of sd-daemon(3), which journald reads from standard error.
std::string Journal(const std::string& channel, int level, const std::string& text);

/// Appends `text` until `line` has `limit` bytes; false if it was cut off. A newline with the indentation after it
/// becomes one space. Other control characters and bytes that are not UTF-8 become \xNN, so that a name from the LAN
/// can neither start a log line nor control a terminal.
bool AppendEscaped(std::string& line, const std::string& text, std::size_t limit);

} // namespace LogLine
