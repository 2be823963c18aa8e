#include "tests/support/LogCapture.h"

#include <algorithm>
#include <cstdlib>

LogCapture::LogCapture(const std::string& levels)
    : m_lines(std::make_shared<Watched<std::vector<Line>>>())
{
    DPrint::SetSink(
        [all = m_lines](const std::string& channel, DPrint::Level level, const std::string& text) {
            all->Change([&](std::vector<Line>& lines) { lines.push_back(Line{channel, level, text}); });
        });
    DPrint::SetLevels(levels);
}

LogCapture::~LogCapture()
{
    DPrint::SetSink(nullptr);
    const char* const levels = std::getenv("SONARIX_LOG");
    DPrint::SetLevels(levels != nullptr ? levels : "");
}

std::size_t LogCapture::Count(DPrint::Level level) const
{
    const std::vector<Line> lines = Lines();
    return static_cast<std::size_t>(
        std::count_if(lines.begin(), lines.end(), [level](const Line& line) { return line.m_level == level; }));
}

bool LogCapture::Contains(const std::string& part) const
{
    return WaitFor(part, std::chrono::milliseconds(0));
}

bool LogCapture::WaitFor(const std::string& part, std::chrono::milliseconds limit) const
{
    return m_lines->WaitUntil(
        [&part](const std::vector<Line>& lines)
        {
            return std::any_of(lines.begin(), lines.end(),
                               [&part](const Line& line) { return line.m_text.find(part) != std::string::npos; });
        },
        limit);
}

std::string LogCapture::Text() const
{
    std::string text;
    for (const Line& line : Lines())
    {
        text += std::to_string(line.m_level) + ' ' + line.m_channel + ": " + line.m_text + '\n';
    }
    return text;
}
