#pragma once

#include <string>
#include <vector>

/// Device descriptions for measuring the parser. XmlPrecheck lets all of them pass.
namespace SampleDescriptions
{

/// Returns the description of a large device, 16 KiB.
std::string Large();

/// Returns texts of 64 KiB that take longer to parse than a description should, each for its own reason.
std::vector<std::string> Bad();

} // namespace SampleDescriptions
