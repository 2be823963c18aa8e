#pragma once

#include "runtime/DPrint.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace IL
{

/// All log channels with their levels, and the place to which their lines go: standard error, or a test's sink.
/// One object for the process, never destroyed, because a task may log while the process destroys its statics.
/// Safe from any thread.
class LogSink final
{
public:
    static LogSink& Get();

    /// Returns the channel of this name. The first Acquire() creates the channel, the last Release() frees it.
    DPrint::Channel* Acquire(const std::string& name);
    void Release(const DPrint::Channel* channel);

    /// See DPrint::SetLevels(). Returns the entries that cannot be read.
    std::vector<std::string> SetLevels(const std::string& levels);
    /// Returns the entries of SONARIX_LOG that cannot be read, once, for the log lines of DPrint::Initialize().
    std::vector<std::string> TakeUnreadable();

    void SetSink(DPrint::Sink sink);

    /// Takes no lock: it must work in a crash handler and while another thread changes the levels.
    void Write(const DPrint::Channel& channel, DPrint::Level level, const std::string& text) const;

private:
    LogSink();
    ~LogSink() = delete;

    int LevelOf(const std::string& name) const;
    std::vector<std::string> Parse(const std::string& levels);
    bool ParseEntry(const std::string& entry);

    const bool m_toJournal;
    std::mutex m_mutex; ///< never held while a line is written
    std::map<std::string, std::unique_ptr<DPrint::Channel>> m_channels;
    std::map<std::string, int> m_levels; ///< by channel name; the channel may be created later
    int m_default = DPrint::LEVEL_INFO;
    std::vector<std::string> m_unreadable;
    std::vector<std::unique_ptr<DPrint::Sink>> m_sinks; ///< never removed: a thread may still be in a replaced sink
    std::atomic<const DPrint::Sink*> m_sink = nullptr;
};

} // namespace IL
