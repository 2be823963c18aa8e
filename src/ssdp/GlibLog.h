#pragma once

namespace SonarixService::GlibLog
{

/// Redirects the messages of GLib and of libraries based on it to the log, at most kMaxLines a minute: any host on the
/// network can cause warnings. Process-wide and permanent; further calls do nothing. Safe from any thread.
void Install();

/// Maximum number of lines per minute. A busy network causes a few per day.
constexpr int kMaxLines = 10;

} // namespace SonarixService::GlibLog
