#pragma once

#include "runtime/DPrint.h"
#include "tests/support/Watched.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

/// Collects all log lines instead of standard error until it is destroyed. One at a time; any thread may log.
///
///     LogCapture log("3,MdnsService=7");
///     ...
///     EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 0u) << log.Text();
class LogCapture final
{
public:
    struct Line
    {
        std::string m_channel;
        DPrint::Level m_level;
        std::string m_text;

        bool operator==(const Line&) const = default;
    };

    /// `levels` in the form of SONARIX_LOG; the destructor restores those of SONARIX_LOG.
    explicit LogCapture(const std::string& levels = "3");
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Line> Lines() const
    {
        return m_lines->Get();
    }
    std::size_t Count(DPrint::Level level) const;
    bool Contains(const std::string& part) const; ///< a line's text contains `part`
    /// Waits for a line that contains `part` (true), at most `limit` (false).
    bool WaitFor(const std::string& part, std::chrono::milliseconds limit = std::chrono::seconds(60)) const;
    std::string Text() const; ///< all lines, for messages of failed expectations
    void Clear()
    {
        m_lines->Set({});
    }

private:
    const std::shared_ptr<Watched<std::vector<Line>>>
        m_lines; ///< shared with the sink, because a thread may still log through it
};
