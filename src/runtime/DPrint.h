#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

/// One logging channel: one object per module, or per object where the name is built at run time. Lines go to
/// standard error, one write each, in journald's "<N>" form where JOURNAL_STREAM says so. Levels come from
/// SONARIX_LOG: a default and per-channel values, "3,MdnsService=6,mDNS=4".
/// Safe from any thread, at static construction and until the very end of the process. Writing a line takes no
/// lock, never throws, and never blocks on anything but standard error.
class DPrint final
{
public:
    /// The smaller the graver.
    enum Level
    {
        LEVEL_CRITICAL = 0,
        LEVEL_ERROR = 1,   ///< failures and crashes
        LEVEL_WARNING = 2, ///< warnings
        LEVEL_INFO = 3,    ///< normal information, the default
        LEVEL_DEBUG = 4,   ///< entry into control functions
        LEVEL_DUMP = 5,
        LEVEL_VERBOSE = 6, ///< dumps of messages
        LEVEL_FINEST = 7,  ///< the finest parsing detail
    };

    explicit DPrint(const char* name);        ///< a module's channel; its name is kept for good
    explicit DPrint(const std::string& name); ///< an object's channel; its name goes with its last object
    ~DPrint();
    DPrint(const DPrint&) = delete;
    DPrint& operator=(const DPrint&) = delete;

    /// Once at process start. Nothing may log before it.
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

    /// Stream style; use DPRINT below. A text that stays empty logs the function's name alone.
    void Prefix(std::ostringstream& stream, Level level, const char* functionName) const;
    void Put(std::ostringstream& stream, Level level) const;

    /// Sets the levels of all channels, those made later too, in the form of SONARIX_LOG.
    /// An entry that cannot be read is skipped with one level-1 line.
    static void SetLevels(const std::string& levels);

    /// Sends every line elsewhere (tests): (channel, level, text as it was logged). Null puts standard error back.
    /// A line that another thread is writing may still reach the old sink, so a sink owns what it refers to.
    using Sink = std::function<void(const std::string& channel, Level level, const std::string& text)>;
    static void SetSink(Sink sink);

private:
    friend class DPrintChannels;

    /// What all objects of one name share. Not inside the object: tasks may log through a module's static channel
    /// while the process is already destroying its statics.
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

/// The stream form of a log line, guarded by IsLog, prefixed with the function's own name:
/// DPRINT(s_log, DPrint::LEVEL_INFO, "etcDir: " << etcDir);
#define DPRINT(channel, level, text)                                                                                   \
    do                                                                                                                 \
    {                                                                                                                  \
        if ((channel).IsLog(level))                                                                                    \
        {                                                                                                              \
            std::ostringstream dprintStream;                                                                           \
            (channel).Prefix(dprintStream, (level), __func__);                                                         \
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
