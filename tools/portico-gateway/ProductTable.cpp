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

/// Both forms are legal: the record itself, or an object whose sole key is the record's name.
Json ReadRecord(const std::string& text, const char* name)
{
    Json record = Json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (record.is_object() && record.size() == 1 && record.contains(name))
    {
        return record[name];
    }
    return record;
}

std::string Text(const Json& object, const char* key)
{
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

bool IsNumeric(const std::string& address)
{
    std::array<unsigned char, sizeof(in6_addr)> ignored{};
    return inet_pton(AF_INET, address.c_str(), ignored.data()) == 1 ||
           inet_pton(AF_INET6, address.c_str(), ignored.data()) == 1;
}

/// "192.0.2.1" of "http://192.0.2.1:49152/description.xml", "2001:db8::1" of "http://[2001:db8::1]/".
std::string HostOf(const std::string& location)
{
    const std::size_t scheme = location.find("://");
    const std::string host = scheme == std::string::npos ? "" : location.substr(scheme + 3);
    return host.starts_with("[") ? host.substr(1, host.find(']') - 1) : host.substr(0, host.find_first_of(":/"));
}

} // namespace

std::map<std::string, std::string> ReadAddresses(const std::string& productList)
{
    std::map<std::string, std::string> addresses;
    const Json list = ReadRecord(productList, "ProductList");
    const auto products = list.is_object() ? list.find("products") : list.end();
    if (!list.is_object() || products == list.end() || !products->is_array())
    {
        return addresses;
    }
    for (const Json& row : *products)
    {
        const auto info = row.is_object() ? row.find("productinfo") : row.end();
        if (!row.is_object() || info == row.end() || !info->is_object())
        {
            continue;
        }
        std::string address = Text(*info, "ipaddress");
        if (address.empty()) // it answered for itself while it had no network; mDNS may have no record of it
        {
            address = HostOf(Text(*info, "location"));
        }
        if (IsNumeric(address))
        {
            addresses.emplace(Text(*info, "guid"), std::move(address));
        }
    }
    return addresses;
}

std::string FindGuid(const std::string& productInfo)
{
    const Json info = ReadRecord(productInfo, "ProductInfo");
    return info.is_object() ? Text(info, "guid") : std::string();
}

} // namespace Gateway
