#pragma once

#include "tools/portico-gateway/RpcFrame.h"

#include <map>
#include <string>

namespace Gateway
{

/// guid -> `ipaddress` of the rows of a product list as JSON, whatever their state, or the host of `location` where
/// that is empty. A row without a numeric address is left out: it is made of what the LAN says.
std::map<std::string, std::string> ReadAddresses(const std::string& productList);

/// The `guid` of a product's own information as JSON, empty where there is none.
std::string FindGuid(const std::string& productInfo);

} // namespace Gateway
