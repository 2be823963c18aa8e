#pragma once

#include <string>
#include <vector>

class Options;

namespace HUBAPI
{
class AdvertisementInfo;
}

/// Names of the options that describe the product.
std::vector<std::string> DescriptionOptions();

/// What the product is: the JSON file named on the command line, if any, then the options over it; the guid always
/// from the manufacturing data, `ecosys` "ORB2" where nothing else is said. False, with the reason in `error`, where
/// the file cannot be used, or there is no name.
[[nodiscard]] bool ReadDescription(const Options& options, HUBAPI::AdvertisementInfo& info, std::string& error);
