#include "runtime/DPrint.h"

#include "runtime/engine/LogSink.h"

#include <array>
#include <cstdio>
#include <string_view>
#include <utility>
#include <vector>

namespace
{

const DPrint s_log("DPrint");

void LogUnreadable(const std::vector<std::string>& entries)
{
    for (const std::string& entry : entries)
    {
        s_log.LogError("log level entry \"%s\" skipped, want LEVEL or CHANNEL=LEVEL with a level of 0 to 7",
                       entry.c_str());
    }
}

/// Index of the stream's word in which Prefix() stores the length of the prefix for Put().
int PrefixLengthIndex()
{
    static const int s_index = std::ios_base::xalloc();
    return s_index;
}

constexpr std::string_view kPrefixEnd = ": ";

} // namespace

DPrint::DPrint(const char* name)
    : m_channel(IL::LogSink::Get().Acquire(name))
    , m_counted(false)
{
}

DPrint::DPrint(const std::string& name)
    : m_channel(IL::LogSink::Get().Acquire(name))
    , m_counted(true)
{
}

DPrint::~DPrint()
{
    if (m_counted)
    {
        IL::LogSink::Get().Release(m_channel);
    }
}

void DPrint::Initialize()
{
    LogUnreadable(IL::LogSink::Get().TakeUnreadable());
}

void DPrint::SetLevels(const std::string& levels)
{
    LogUnreadable(IL::LogSink::Get().SetLevels(levels));
}

void DPrint::SetSink(Sink sink)
{
    IL::LogSink::Get().SetSink(std::move(sink));
}

void DPrint::Prefix(std::ostringstream& stream, Level, const char* functionName) const
{
    stream << functionName << kPrefixEnd;
    stream.iword(PrefixLengthIndex()) = static_cast<long>(stream.tellp());
}

void DPrint::Put(std::ostringstream& stream, Level level) const
{
    try
    {
        std::string text = stream.str();
        const auto prefix = static_cast<std::size_t>(stream.iword(PrefixLengthIndex()));
        if (prefix >= kPrefixEnd.size())
        {
            const std::string_view name = std::string_view(text).substr(0, prefix - kPrefixEnd.size());
            const std::string_view inserted = std::string_view(text).substr(prefix);
            if (inserted.empty() || inserted == name)
            {
                text.resize(name.size());
            }
        }
        Write(level, text);
    }
    catch (...) // out of memory: the line is lost, the caller continues
    {
    }
}

void DPrint::LogFormatted(Level level, const char* format, va_list args) const
{
    if (!IsLog(level))
    {
        return;
    }
    try
    {
        std::array<char, 1024> buffer;
        va_list again;
        va_copy(again, args);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): every caller has called va_start
        const int length = std::vsnprintf(buffer.data(), buffer.size(), format, args);
        std::string text;
        if (length < 0)
        {
            text = format;
        }
        else if (static_cast<std::size_t>(length) < buffer.size())
        {
            text.assign(buffer.data(), static_cast<std::size_t>(length));
        }
        else
        {
            text.resize(static_cast<std::size_t>(length) + 1);
            std::vsnprintf(text.data(), text.size(), format, again);
            text.pop_back();
        }
        va_end(again);
        Write(level, text);
    }
    catch (...) // as in Put()
    {
    }
}

void DPrint::Write(Level level, const std::string& text) const
{
    IL::LogSink::Get().Write(*m_channel, level, text);
}

// A C variadic function cannot forward its arguments to another one, so each form needs the whole body.
#define SONARIX_LOG_FORM(signature, level)                                                                             \
    void DPrint::signature const                                                                                       \
    {                                                                                                                  \
        va_list args;                                                                                                  \
        va_start(args, format);                                                                                        \
        LogFormatted(level, format, args);                                                                             \
        va_end(args);                                                                                                  \
    }

SONARIX_LOG_FORM(Log(Level level, const char* format, ...), level)
SONARIX_LOG_FORM(LogCritical(const char* format, ...), LEVEL_CRITICAL)
SONARIX_LOG_FORM(LogError(const char* format, ...), LEVEL_ERROR)
SONARIX_LOG_FORM(LogWarning(const char* format, ...), LEVEL_WARNING)
SONARIX_LOG_FORM(LogInfo(const char* format, ...), LEVEL_INFO)
SONARIX_LOG_FORM(LogDebug(const char* format, ...), LEVEL_DEBUG)
SONARIX_LOG_FORM(LogVerbose(const char* format, ...), LEVEL_VERBOSE)
SONARIX_LOG_FORM(LogTestAutomation(const char* format, ...), LEVEL_FINEST)
