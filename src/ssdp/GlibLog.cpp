#include "ssdp/GlibLog.h"

#include "runtime/DPrint.h"
#include "runtime/MonotonicClock.h"

#include <cstdint>
#include <glib.h>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace SonarixService::GlibLog
{

namespace
{

const DPrint s_log("GSSDPHandler");

constexpr std::int64_t kWindowMs = 60'000;
constexpr std::size_t kMaxTextBytes = 300; ///< a message quotes headers from the network

DPrint::Level LevelOf(GLogLevelFlags flags)
{
    if ((flags & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL)) != 0)
    {
        return DPrint::LEVEL_ERROR;
    }
    return (flags & G_LOG_LEVEL_WARNING) != 0 ? DPrint::LEVEL_WARNING : DPrint::LEVEL_FINEST;
}

std::string_view Field(const GLogField* fields, gsize count, std::string_view name)
{
    for (gsize i = 0; i < count; ++i)
    {
        if (name == fields[i].key)
        {
            const auto* const value = static_cast<const char*>(fields[i].value);
            return fields[i].length < 0 ? std::string_view(value)
                                        : std::string_view(value, static_cast<std::size_t>(fields[i].length));
        }
    }
    return {};
}

/// Counts one line. Returns the number of lines suppressed since the last written one, or -1 to suppress this line.
std::int64_t CountLine()
{
    static std::mutex s_mutex;
    static std::int64_t s_windowStartMs = -kWindowMs;
    static int s_lines = 0;
    static std::int64_t s_suppressed = 0;

    const std::lock_guard lock(s_mutex);
    const std::int64_t now = MonotonicClock::NowMs();
    if (now - s_windowStartMs >= kWindowMs)
    {
        s_windowStartMs = now;
        s_lines = 0;
    }
    if (s_lines >= kMaxLines)
    {
        ++s_suppressed;
        return -1;
    }
    ++s_lines;
    return std::exchange(s_suppressed, 0);
}

GLogWriterOutput Write(GLogLevelFlags flags, const GLogField* fields, gsize count, gpointer)
{
    const DPrint::Level level = LevelOf(flags);
    const bool endsProcess = (flags & (G_LOG_LEVEL_ERROR | G_LOG_FLAG_FATAL)) != 0;
    if (level == DPrint::LEVEL_FINEST || !s_log.IsLog(level)) // GLib's info and debug messages
    {
        return G_LOG_WRITER_HANDLED;
    }
    const std::int64_t suppressed = endsProcess ? 0 : CountLine();
    if (suppressed >= 0)
    {
        const std::string domain(Field(fields, count, "GLIB_DOMAIN")); // empty in messages of GSSDP's browser
        const std::string text(Field(fields, count, "MESSAGE").substr(0, kMaxTextBytes));
        DPRINTF(s_log, level, "%s%s%s%s", domain.c_str(), domain.empty() ? "" : ": ", text.c_str(),
                suppressed > 0 ? (" (" + std::to_string(suppressed) + " earlier lines were suppressed)").c_str() : "");
    }
    return G_LOG_WRITER_HANDLED;
}

} // namespace

void Install()
{
    static std::once_flag s_once;
    std::call_once(s_once, [] { g_log_set_writer_func(&Write, nullptr, nullptr); });
}

} // namespace SonarixService::GlibLog
