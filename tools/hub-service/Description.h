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

/// The product's description: the JSON file on the command line if any, overridden by the options. The guid always
/// comes from the manufacturing data; the default of `ecosys` is "ORB2". Returns false and sets `error` if the file is
/// invalid or the name is missing.
[[nodiscard]] bool ReadDescription(const Options& options, HUBAPI::AdvertisementInfo& info, std::string& error);
