#include "runtime/engine/LogSink.h"

#include "runtime/engine/LogLine.h"

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace
{

/// JOURNAL_STREAM holds "device:inode" of the stream that systemd connected to the journal.
bool IsStderrJournal()
{
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status = {};
    if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0)
    {
        return false;
    }
    return std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) == stream;
}

/// Writes `line` to standard error. A line that standard error does not accept is lost.
void WriteToStderr(std::string_view line)
{
    while (!line.empty())
    {
        const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
        if (written >= 0)
        {
            line.remove_prefix(static_cast<std::size_t>(written));
        }
        else if (errno != EINTR)
        {
            return;
        }
    }
}

} // namespace

namespace IL
{

LogSink& LogSink::Get()
{
    static auto* const s_sink = new LogSink;
    return *s_sink;
}

LogSink::LogSink()
    : m_toJournal(IsStderrJournal())
{
    if (const char* const levels = std::getenv("SONARIX_LOG"))
    {
        m_unreadable = Parse(levels);
    }
}

DPrint::Channel* LogSink::Acquire(const std::string& name)
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

void LogSink::Release(const DPrint::Channel* channel)
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_channels.find(channel->m_name);
    if (--found->second->m_users == 0)
    {
        m_channels.erase(found);
    }
}

std::vector<std::string> LogSink::SetLevels(const std::string& levels)
{
    const std::lock_guard lock(m_mutex);
    std::vector<std::string> unreadable = Parse(levels);
    for (const auto& [name, channel] : m_channels)
    {
        channel->m_level = LevelOf(name);
    }
    return unreadable;
}

std::vector<std::string> LogSink::TakeUnreadable()
{
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_unreadable, {});
}

void LogSink::SetSink(DPrint::Sink sink)
{
    const std::lock_guard lock(m_mutex);
    m_sinks.push_back(sink ? std::make_unique<DPrint::Sink>(std::move(sink)) : nullptr);
    m_sink = m_sinks.back().get();
}

void LogSink::Write(const DPrint::Channel& channel, DPrint::Level level, const std::string& text) const
{
    if (const DPrint::Sink* const sink = m_sink.load())
    {
        (*sink)(channel.m_name, level, text);
        return;
    }
    WriteToStderr(m_toJournal ? LogLine::Journal(channel.m_name, level, text)
                              : LogLine::Plain(channel.m_name, level, text, std::chrono::system_clock::now()));
}

int LogSink::LevelOf(const std::string& name) const
{
    const auto found = m_levels.find(name);
    return found == m_levels.end() ? m_default : found->second;
}

std::vector<std::string> LogSink::Parse(const std::string& levels)
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

bool LogSink::ParseEntry(const std::string& entry)
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

} // namespace IL
