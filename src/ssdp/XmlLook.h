#pragma once

#include <cstddef>
#include <string_view>

/// A look over XML from the network before TinyXML gets it. TinyXML takes time that grows with the square of a
/// document's depth and of a tag's attributes, a piece of stack for each level, reads wrongly past a DOCTYPE, and loops
/// or crashes on some bytes that are no text. Pure, from any thread, linear in the text.
///
/// Design: tags, comments and so on are told apart as XML does it, where TinyXML is laxer. What makes it see more
/// levels or attributes than counted here is bounded all the same: by all the "<" and "=" that there are.
namespace XmlLook
{

/// What a description has, headers of its answer included: most take 2 to 8 KiB, with all services of a large device
/// 20 KiB.
constexpr std::size_t kMaxBytes = std::size_t{64} * 1024;
/// A description goes 6 levels deep, one with devices in devices 8.
constexpr int kMaxLevels = 32;
/// A description has one or two, for its name spaces.
constexpr int kMaxAttributes = 64;
/// All "<", so two for most elements: a large device has 400. With each of them a level deeper, TinyXML takes 230 KiB
/// of a task's stack of 512 KiB, and 10 ms.
constexpr std::ptrdiff_t kMaxTags = 1024;
/// All "=", those of URLs too: as so many attributes of one tag they take 5 ms.
constexpr std::ptrdiff_t kMaxEqualSigns = 1024;

/// Null: TinyXML may have it, though it may be no XML. Else why not, for a line of the log.
const char* WhyNotToParse(std::string_view text);

} // namespace XmlLook
