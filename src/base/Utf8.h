#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Texts from the LAN are bytes until looked at. Stateless, from any thread.
namespace Utf8
{

/// Bytes of the well-formed sequence at `at`; 0 where there is none (an overlong form, a surrogate, anything above
/// U+10FFFF, a sequence cut short).
std::size_t SequenceLength(std::string_view text, std::size_t at);

bool IsValid(std::string_view text);

/// `text` with every byte that belongs to no well-formed sequence replaced by U+FFFD.
std::string ReplaceInvalid(std::string_view text);

} // namespace Utf8
