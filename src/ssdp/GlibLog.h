#pragma once

namespace SonarixService::GlibLog
{

/// Sends what GLib and the libraries on it have to say through the log, at most kMaxLines a minute: anybody on the
/// network can make them warn. Process-wide and for good; the first call counts. Safe from any thread.
void Install();

/// A busy network gives a few a day; more help nobody.
constexpr int kMaxLines = 10;

} // namespace SonarixService::GlibLog
