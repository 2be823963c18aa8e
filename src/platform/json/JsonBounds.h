#pragma once

#include <cstddef>
#include <string>

namespace JsonText
{

/// As deep as protobuf's own reader goes; nothing of ours nests ten levels.
inline constexpr std::size_t kMaxNesting = 100;

/// An object that keeps its members' order looks through all of them for each that is added: a frame of 4 MiB with
/// nothing but members took a quarter of an hour. No record of ours has fifty.
inline constexpr std::size_t kMaxMembers = 256;

/// True where lists and objects of a JSON text nest deeper than kMaxNesting, or one object has more than kMaxMembers.
/// Linear, without recursion, and right for any bytes: for use before a parser whose values are walked with a stack
/// frame a level.
bool IsTooComplex(const std::string& text);

} // namespace JsonText
