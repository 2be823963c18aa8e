#pragma once

#include <string>

namespace JsonText
{

/// As deep as protobuf's own reader goes; nothing of ours nests ten levels.
inline constexpr int kMaxNesting = 100;

/// True where lists and objects of a JSON text nest deeper than kMaxNesting. Linear, without recursion, and
/// right for any bytes: for use before a parser whose values are walked with a stack frame a level.
bool IsNestedTooDeep(const std::string& text);

} // namespace JsonText
