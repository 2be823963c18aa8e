#pragma once

#include <string>
#include <vector>

/// Device descriptions for the measuring of their reading. XmlPrecheck lets all of them pass.
namespace SampleDescriptions
{

/// What a large device says of itself, 16 KiB.
std::string Large();

/// Texts of 64 KiB that cost the reader more than a description should, each in its own way.
std::vector<std::string> Bad();

} // namespace SampleDescriptions
