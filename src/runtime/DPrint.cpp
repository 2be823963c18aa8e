#include "runtime/DPrint.h"

#include "runtime/engine/LogLine.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

/// All channels, their levels, and where lines go. One, never destroyed.
class DPrintChannels
{
public:
    static DPrintChannels& Get()
    {
        static auto* const s_channels = new DPrintChannels;
        return *s_channels;
    }

    DPrint::Channel* Acquire(const std::string& name)
    {
        const std::lock_guard lock(m_mutex);
        std::unique_ptr<DPrint::Channel>& channel = m_channels[name];
        if (!channel)
        {
            channel.reset(new DPrint::Channel{name, LevelOf(name), 0});
        }
        ++channel->m_users;
        return channel.get();
    }

    void Release(const DPrint::Channel* channel)
    {
        const std::lock_guard lock(m_mutex);
        const auto found = m_channels.find(channel->m_name);
        if (--found->second->m_users == 0)
        {
            m_channels.erase(found);
        }
    }

    /// Gives back the entries that cannot be read.
    std::vector<std::string> SetLevels(const std::string& levels)
    {
        const std::lock_guard lock(m_mutex);
        std::vector<std::string> unreadable = Parse(levels);
        for (const auto& [name, channel] : m_channels)
        {
            channel->m_level = LevelOf(name);
        }
        return unreadable;
    }

    std::vector<std::string> TakeUnreadable()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_unreadable, {});
    }

    void SetSink(DPrint::Sink sink)
    {
        const std::lock_guard lock(m_mutex);
        // A sink stays for good: another thread may be in it, and a line is written without a lock.
        m_sinks.push_back(sink ? std::make_unique<DPrint::Sink>(std::move(sink)) : nullptr);
        m_sink = m_sinks.back().get();
    }

    void Write(const DPrint::Channel& channel, DPrint::Level level, const std::string& text) const
    {
        if (const DPrint::Sink* const sink = m_sink.load())
        {
            (*sink)(channel.m_name, level, text);
            return;
        }
        WriteToStderr(m_toJournal ? LogLine::Journal(channel.m_name, level, text)
                                  : LogLine::Plain(channel.m_name, level, text, std::chrono::system_clock::now()));
    }

private:
    DPrintChannels()
        : m_toJournal(IsStderrJournal())
    {
        if (const char* const levels = std::getenv("SONARIX_LOG"))
        {
            m_unreadable = Parse(levels);
        }
    }

    /// JOURNAL_STREAM holds "device:inode" of the stream that systemd joined to the journal.
    static bool IsStderrJournal()
    {
        const char* const stream = std::getenv("JOURNAL_STREAM");
        struct stat status = {};
        if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0)
        {
            return false;
        }
        return std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) == stream;
    }

    static void WriteToStderr(std::string_view line)
    {
        while (!line.empty())
        {
            const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
            if (written < 0)
            {
                if (errno == EINTR)
                {
                    continue;
                }
                return; // nobody to tell
            }
            line.remove_prefix(static_cast<std::size_t>(written));
        }
    }

    int LevelOf(const std::string& name) const
    {
        const auto found = m_levels.find(name);
        return found == m_levels.end() ? m_default : found->second;
    }

    std::vector<std::string> Parse(const std::string& levels)
    {
        m_default = DPrint::LEVEL_INFO;
        m_levels.clear();
        std::vector<std::string> unreadable;
        std::istringstream entries(levels);
        for (std::string entry; std::getline(entries, entry, ',');)
        {
            if (!ParseEntry(entry))
            {
                unreadable.push_back(entry);
            }
        }
        return unreadable;
    }

    bool ParseEntry(const std::string& entry)
    {
        const std::size_t equals = entry.rfind('=');
        const std::size_t digits = equals == std::string::npos ? 0 : equals + 1;
        int level = 0;
        const char* const end = entry.data() + entry.size();
        const auto [stop, error] = std::from_chars(entry.data() + digits, end, level);
        if (error != std::errc() || stop != end || level < DPrint::LEVEL_CRITICAL || level > DPrint::LEVEL_FINEST ||
            equals == 0)
        {
            return false;
        }
        if (digits == 0)
        {
            m_default = level;
        }
        else
        {
            m_levels[entry.substr(0, equals)] = level;
        }
        return true;
    }

    const bool m_toJournal;
    std::mutex m_mutex; ///< never held while a line is written
    std::map<std::string, std::unique_ptr<DPrint::Channel>> m_channels;
    std::map<std::string, int> m_levels; ///< names without a channel too: it may come later
    int m_default = DPrint::LEVEL_INFO;
    std::vector<std::string> m_unreadable; ///< of SONARIX_LOG, until Initialize() allows to log
    std::vector<std::unique_ptr<DPrint::Sink>> m_sinks;
    std::atomic<const DPrint::Sink*> m_sink = nullptr;
};

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

/// Where Prefix() leaves the length of what it wrote, for Put().
int PrefixLengthIndex()
{
    static const int s_index = std::ios_base::xalloc();
    return s_index;
}

constexpr std::string_view kPrefixEnd = ": ";

} // namespace

DPrint::DPrint(const char* name)
    : m_channel(DPrintChannels::Get().Acquire(name))
    , m_counted(false)
{
}

DPrint::DPrint(const std::string& name)
    : m_channel(DPrintChannels::Get().Acquire(name))
    , m_counted(true)
{
}

DPrint::~DPrint()
{
    if (m_counted)
    {
        DPrintChannels::Get().Release(m_channel);
    }
}

void DPrint::Initialize()
{
    LogUnreadable(DPrintChannels::Get().TakeUnreadable());
}

void DPrint::SetLevels(const std::string& levels)
{
    LogUnreadable(DPrintChannels::Get().SetLevels(levels));
}

void DPrint::SetSink(Sink sink)
{
    DPrintChannels::Get().SetSink(std::move(sink));
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
        if (prefix >= kPrefixEnd.size() && text.size() == prefix)
        {
            text.resize(prefix - kPrefixEnd.size());
        }
        Write(level, text);
    }
    catch (...) // no memory for the line: it is lost, its writer goes on
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
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): every caller has begun it
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
    DPrintChannels::Get().Write(*m_channel, level, text);
}

void DPrint::Log(Level level, const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    LogFormatted(level, format, args);
    va_end(args);
}

void DPrint::LogCritical(const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    LogFormatted(LEVEL_CRITICAL, format, args);
    va_end(args);
}

void DPrint::LogError(const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    LogFormatted(LEVEL_ERROR, format, args);
    va_end(args);
}

void DPrint::LogWarning(const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    LogFormatted(LEVEL_WARNING, format, args);
    va_end(args);
}

void DPrint::LogInfo(const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    LogFormatted(LEVEL_INFO, format, args);
    va_end(args);
}

void DPrint::LogDebug(const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    LogFormatted(LEVEL_DEBUG, format, args);
    va_end(args);
}

void DPrint::LogVerbose(const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    LogFormatted(LEVEL_VERBOSE, format, args);
    va_end(args);
}

void DPrint::LogTestAutomation(const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    LogFormatted(LEVEL_FINEST, format, args);
    va_end(args);
}
