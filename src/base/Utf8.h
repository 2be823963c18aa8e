#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Validation of UTF-8. Stateless, safe from any thread.
namespace Utf8
{

/// Length in bytes of the well-formed sequence at `at` (Unicode 15, table 3-7). 0 for an overlong form, a surrogate, a
/// value above U+10FFFF or a truncated sequence.
std::size_t SequenceLength(std::string_view text, std::size_t at);

bool IsValid(std::string_view text);

/// Replaces every byte outside well-formed sequences by U+FFFD.
std::string ReplaceInvalid(std::string_view text);

} // namespace Utf8
