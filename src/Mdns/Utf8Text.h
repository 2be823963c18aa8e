#pragma once

#include <string>

namespace SonarixService
{

/// `text` with every byte that belongs to no well-formed UTF-8 sequence replaced by U+FFFD. The same text comes
/// back where it is UTF-8.
std::string ReplaceInvalidUtf8(const std::string& text);

} // namespace SonarixService
