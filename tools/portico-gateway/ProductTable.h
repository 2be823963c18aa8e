#pragma once

#include "jsonrpc/Frame.h"

#include <map>
#include <string>

namespace Gateway
{

/// Maps guid to `ipaddress` for all rows of a product list in JSON, whatever their state. If that is empty, it is the
/// host of `location`. Rows without a numeric address are left out: their contents come from the LAN, and a name
/// would be resolved.
std::map<std::string, std::string> AddressesFromProductList(const std::string& productList);

/// The `guid` of a product info in JSON; empty if it has none.
std::string GuidFromProductInfo(const std::string& productInfo);

} // namespace Gateway
