#pragma once

#include "RpcFrame.h"

#include <optional>
#include <string>

namespace Gateway
{

/// The `ipaddress` of the guid's row in a product list as JSON, whatever the row's state. Nothing without such a row
/// or where it holds no numeric address: a row is made of what the LAN says.
std::optional<std::string> FindAddress(const std::string& productList, const std::string& guid);

/// The `guid` of a product's own information as JSON, empty where there is none.
std::string FindGuid(const std::string& productInfo);

} // namespace Gateway
