#include "runtime/engine/LogLine.h"

#include "base/Utf8.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace
{

constexpr std::string_view kEllipsis = "\xE2\x80\xA6";

/// Length of the printable UTF-8 character at `at`; 0 if the byte must be escaped.
std::size_t PrintableLength(const std::string& text, std::size_t at)
{
    const std::size_t length = Utf8::SequenceLength(text, at);
    const unsigned lead = static_cast<unsigned char>(text[at]);
    const bool isC0Control = length == 1 && (lead < 0x20 || lead == 0x7F);
    const bool isC1Control = length == 2 && lead == 0xC2 && static_cast<unsigned char>(text[at + 1]) < 0xA0;
    return isC0Control || isC1Control ? 0 : length;
}

/// Levels 0 to 3 are syslog's critical, error, warning and info; all others are its debug.
int PriorityFromLevel(int level)
{
    constexpr int kPriorities[] = {2, 3, 4, 6};
    constexpr int kDebug = 7;
    return level >= 0 && level < 4 ? kPriorities[level] : kDebug;
}

std::string Finish(std::string line, const std::string& channel, const std::string& text)
{
    const std::size_t limit = LogLine::kMaxBytes - kEllipsis.size() - 1;
    const bool whole = LogLine::AppendEscaped(line, channel, limit) && LogLine::AppendEscaped(line, ": ", limit) &&
                       LogLine::AppendEscaped(line, text, limit);
    if (!whole)
    {
        line += kEllipsis;
    }
    line += '\n';
    return line;
}

} // namespace

namespace LogLine
{

bool AppendEscaped(std::string& line, const std::string& text, std::size_t limit)
{
    constexpr char kHex[] = "0123456789abcdef";
    for (std::size_t at = 0; at < text.size();)
    {
        if (text[at] == '\n') // in an indented record, a newline with its indentation becomes one space
        {
            at = text.find_first_not_of(" \n", at);
            at = at == std::string::npos ? text.size() : at;
            if (at < text.size() && line.size() < limit)
            {
                line += ' ';
            }
            continue;
        }
        const std::size_t length = PrintableLength(text, at);
        if (line.size() + (length == 0 ? 4 : length) > limit)
        {
            return false;
        }
        if (length == 0)
        {
            const auto byte = static_cast<unsigned char>(text[at]);
            line += "\\x";
            line += kHex[byte >> 4U];
            line += kHex[byte & 0x0FU];
            ++at;
        }
        else
        {
            line.append(text, at, length);
            at += length;
        }
    }
    return true;
}

std::string Plain(const std::string& channel, int level, const std::string& text,
                  std::chrono::system_clock::time_point time)
{
    // Not gmtime_r(), which takes a lock of the C library: the crash handler logs through this function.
    using namespace std::chrono;
    const auto milli = floor<milliseconds>(time);
    const auto day = floor<days>(milli);
    const year_month_day date(day);
    const hh_mm_ss<milliseconds> clock(milli - day);
    char head[64];
    std::snprintf(head, sizeof head, "%04d-%02u-%02uT%02d:%02d:%02d.%03d %d ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()), level);
    return Finish(head, channel, text);
}

std::string Journal(const std::string& channel, int level, const std::string& text)
{
    return Finish('<' + std::to_string(PriorityFromLevel(level)) + '>', channel, text);
}

} // namespace LogLine
