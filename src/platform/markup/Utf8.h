#pragma once

#include <string_view>

namespace ProtoToMarkup
{

/// True where `text` is well-formed UTF-8 (no overlong form, no surrogate, nothing above U+10FFFF).
bool IsUtf8(std::string_view text);

} // namespace ProtoToMarkup
