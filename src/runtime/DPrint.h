#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

namespace IL
{
class LogSink;
} // namespace IL

/// One log channel: one object per module, or per object where the name is built at run time. Lines go to standard
/// error, one write each, in journald's "<N>" form if JOURNAL_STREAM names standard error. Levels come from
/// SONARIX_LOG: a default and values for channels, "3,MdnsService=6,mDNS=4".
/// Safe from any thread, from static construction to the end of the process. Writing a line takes no lock, never
/// throws, and blocks only on standard error.
class DPrint final
{
public:
    /// A smaller value is more severe.
    enum Level
    {
        LEVEL_CRITICAL = 0,
        LEVEL_ERROR = 1,   ///< failures and crashes
        LEVEL_WARNING = 2, ///< warnings
        LEVEL_INFO = 3,    ///< normal information, the default
        LEVEL_DEBUG = 4,   ///< entry into control functions
        LEVEL_VERBOSE = 6, ///< dumps of messages
        LEVEL_FINEST = 7,  ///< the finest parsing detail
    };

    explicit DPrint(const char* name);        ///< a module's channel; the process never frees it
    explicit DPrint(const std::string& name); ///< an object's channel; freed with the last object of this name
    ~DPrint();
    DPrint(const DPrint&) = delete;
    DPrint& operator=(const DPrint&) = delete;

    /// To be called once at process start, before the first log line.
    static void Initialize();

    bool IsLog(Level level) const
    {
        return static_cast<int>(level) <= m_channel->m_level.load(std::memory_order_relaxed);
    }

    /// printf style, without the function's name. The fixed-level forms: critical 0, error 1, warning 2, info 3,
    /// debug 4, verbose 6, test automation 7.
    void Log(Level level, const char* format, ...) const __attribute__((format(printf, 3, 4)));
    void LogCritical(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void LogError(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void LogWarning(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void LogInfo(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void LogDebug(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void LogVerbose(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void LogTestAutomation(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    /// Stream style; use DPRINT below. If the inserted text is empty or is the function's name again, the line is
    /// the name alone.
    void Prefix(std::ostringstream& stream, Level level, const char* functionName) const;
    void Put(std::ostringstream& stream, Level level) const;

    /// Sets the levels of all channels, also of channels created later, in the form of SONARIX_LOG.
    /// An entry that cannot be read is skipped with one level-1 line.
    static void SetLevels(const std::string& levels);

    /// For tests: sends every line to `sink` as (channel, level, text before escaping); null restores standard error.
    /// Another thread may still call the old sink, so a sink owns what it refers to.
    using Sink = std::function<void(const std::string& channel, Level level, const std::string& text)>;
    static void SetSink(Sink sink);

private:
    friend class IL::LogSink;

    /// The data of a log channel, shared by all DPrint objects of one name. Stored outside of DPrint, because a task
    /// may log through a module's static DPrint while the process destroys its statics.
    struct Channel
    {
        std::string m_name;
        std::atomic<int> m_level;
        std::size_t m_users;
    };

    void LogFormatted(Level level, const char* format, va_list args) const;
    void Write(Level level, const std::string& text) const;

    Channel* const m_channel;
    const bool m_counted;
};

/// The stream form of a log line, guarded by IsLog, with the name of the calling function in front:
/// DPRINT(s_log, DPrint::LEVEL_INFO, "etcDir: " << etcDir);
#define DPRINT(channel, level, text) DPRINT_AS(channel, level, __func__, text)

/// DPRINT with the name of the function given. For lambdas, in which __func__ is "operator()":
/// DPRINT_AS(s_log, DPrint::LEVEL_INFO, "NotifyProducts", "sent " << count);
#define DPRINT_AS(channel, level, function, text)                                                                      \
    do                                                                                                                 \
    {                                                                                                                  \
        if ((channel).IsLog(level))                                                                                    \
        {                                                                                                              \
            std::ostringstream dprintStream;                                                                           \
            (channel).Prefix(dprintStream, (level), (function));                                                       \
            dprintStream << text; /* NOLINT(bugprone-macro-parentheses): a chain of << */                              \
            (channel).Put(dprintStream, (level));                                                                      \
        }                                                                                                              \
    } while (false)

/// The printf form, guarded by IsLog: DPRINTF(s_log, DPrint::LEVEL_INFO, "%s()", "StopService");
#define DPRINTF(channel, level, ...)                                                                                   \
    do                                                                                                                 \
    {                                                                                                                  \
        if ((channel).IsLog(level))                                                                                    \
        {                                                                                                              \
            (channel).Log((level), __VA_ARGS__);                                                                       \
        }                                                                                                              \
    } while (false)
