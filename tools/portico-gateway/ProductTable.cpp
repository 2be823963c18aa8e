#include "tools/portico-gateway/ProductTable.h"

#include <nlohmann/json.hpp>

#include <array>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace Gateway
{
namespace
{

using Json = nlohmann::json;

/// A record may be wrapped in an object whose only key is the name of the record.
Json ReadRecord(const std::string& text, const char* name)
{
    Json record = Json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (record.is_object() && record.size() == 1 && record.contains(name))
    {
        return record[name];
    }
    return record;
}

/// Null if `object` is not an object or has no such member.
const Json& Member(const Json& object, const char* key)
{
    static const Json s_null;
    const auto found = object.find(key); // end() unless it is an object
    return found != object.end() ? *found : s_null;
}

std::string Text(const Json& object, const char* key)
{
    const Json& member = Member(object, key);
    return member.is_string() ? member.get<std::string>() : std::string();
}

bool IsNumeric(const std::string& address)
{
    std::array<unsigned char, sizeof(in6_addr)> ignored{};
    return inet_pton(AF_INET, address.c_str(), ignored.data()) == 1 ||
           inet_pton(AF_INET6, address.c_str(), ignored.data()) == 1;
}

/// The host of a URL: "192.0.2.1" for "http://192.0.2.1:49152/description.xml", "2001:db8::1" for
/// "http://[2001:db8::1]/".
std::string HostOf(const std::string& location)
{
    const std::size_t scheme = location.find("://");
    const std::string host = scheme == std::string::npos ? "" : location.substr(scheme + 3);
    return host.starts_with("[") ? host.substr(1, host.find(']') - 1) : host.substr(0, host.find_first_of(":/"));
}

} // namespace

std::map<std::string, std::string> AddressesFromProductList(const std::string& productList)
{
    std::map<std::string, std::string> addresses;
    const Json list = ReadRecord(productList, "ProductList");
    for (const Json& row : Member(list, "products"))
    {
        const Json& info = Member(row, "productinfo");
        std::string address = Text(info, "ipaddress");
        // A product that had no network when it answered with its info has no address; mDNS may have no record either.
        address = address.empty() ? HostOf(Text(info, "location")) : address;
        if (IsNumeric(address))
        {
            addresses.emplace(Text(info, "guid"), std::move(address));
        }
    }
    return addresses;
}

std::string GuidFromProductInfo(const std::string& productInfo)
{
    return Text(ReadRecord(productInfo, "ProductInfo"), "guid");
}

} // namespace Gateway
