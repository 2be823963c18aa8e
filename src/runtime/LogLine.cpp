#include "LogLine.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace
{

constexpr std::string_view kEllipsis = "\xE2\x80\xA6";

/// Length of the well-formed UTF-8 character at `at` that may be shown as it is; 0: to be escaped.
std::size_t PrintableLength(const std::string& text, std::size_t at)
{
    const auto byte = [&](std::size_t offset) -> unsigned
    { return at + offset < text.size() ? static_cast<unsigned char>(text[at + offset]) : 0U; };
    const auto continues = [&](std::size_t offset) { return (byte(offset) & 0xC0U) == 0x80U; };

    const unsigned lead = byte(0);
    if (lead < 0x80)
    {
        return lead >= 0x20 && lead != 0x7F ? 1 : 0;
    }
    if (lead >= 0xC2 && lead <= 0xDF)
    {
        const bool c1Control = lead == 0xC2 && byte(1) < 0xA0;
        return continues(1) && !c1Control ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF)
    {
        const bool overlong = lead == 0xE0 && byte(1) < 0xA0;
        const bool surrogate = lead == 0xED && byte(1) >= 0xA0;
        return continues(1) && continues(2) && !overlong && !surrogate ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4)
    {
        const bool overlong = lead == 0xF0 && byte(1) < 0x90;
        const bool tooBig = lead == 0xF4 && byte(1) >= 0x90;
        return continues(1) && continues(2) && continues(3) && !overlong && !tooBig ? 4 : 0;
    }
    return 0;
}

/// From our levels to syslog's: critical, error, warning, info, and debug for all the rest.
int Priority(int level)
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
        if (text[at] == '\n') // an indented record: its line ends and indents become one blank
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
    // Not gmtime_r, which takes a lock of the C library: a crash handler logs through here.
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
    return Finish('<' + std::to_string(Priority(level)) + '>', channel, text);
}

} // namespace LogLine
