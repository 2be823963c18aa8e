#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

/// One logging channel: one object per module, or per object where the name is built at run time. Lines go to
/// standard error, one write each, in journald's "<N>" form where JOURNAL_STREAM says so. Levels come from
/// SONARIX_LOG: a default and per-channel values, "3,MdnsService=6,mDNS=4".
/// Safe from any thread. Never throws and never blocks on anything but standard error.
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

    explicit DPrint(const char* name);
    explicit DPrint(const std::string& name);
    ~DPrint();
    DPrint(const DPrint&) = delete;
    DPrint& operator=(const DPrint&) = delete;

    /// Once at process start. Nothing may log before it.
    static void Initialize();

    bool IsLog(Level level) const
    {
        return static_cast<int>(level) <= m_level.load(std::memory_order_relaxed);
    }

    void Log(Level level, const char* format, ...) const __attribute__((format(printf, 3, 4)));
    void LogCritical(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void LogError(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void LogWarning(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void LogInfo(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void LogDebug(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void LogVerbose(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void LogTestAutomation(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    /// Stream style; use DPRINT below.
    void Prefix(std::ostringstream& stream, Level level, const char* functionName) const;
    void Put(std::ostringstream& stream, Level level) const;

    /// Sets the levels of all channels, those made later too, in the form of SONARIX_LOG.
    /// An entry that cannot be read is skipped with one level-1 line.
    static void SetLevels(const std::string& levels);

    /// Sends every line elsewhere (tests): (channel, level, text). Null puts standard error back.
    using Sink = std::function<void(const std::string& channel, Level level, const std::string& text)>;
    static void SetSink(Sink sink);

private:
    void Write(Level level, const std::string& text) const;

    const std::string m_name;
    std::atomic<int> m_level;
    friend class DPrintChannels;
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
            dprintStream << text;                                                                                      \
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
