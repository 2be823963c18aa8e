#include "aggregator/ProductMerge.h"

#include <map>
#include <set>
#include <string>
#include <utility>

namespace SonarixService
{

namespace
{

/// Bounds a row: a product that sends new icon urls or service ids in each report would let it grow forever. Real
/// products have less than ten of each. Above this number only those of the latest report are kept.
constexpr int kMaxElements = 64;

template <class Element>
void ReduceByKey(google::protobuf::RepeatedPtrField<Element>& elements, const std::string& (Element::*key)() const)
{
    std::map<std::string, Element> lastByKey;
    for (Element& element : elements)
    {
        std::string elementKey = (element.*key)();
        lastByKey[std::move(elementKey)] = std::move(element);
    }
    elements.Clear();
    for (auto& [elementKey, element] : lastByKey)
    {
        elements.Add(std::move(element));
    }
}

} // namespace

Sonarix::Product MergeProducts(const Sonarix::Product& existing, const Sonarix::Product& update)
{
    Sonarix::Product merged = existing;
    merged.MergeFrom(update);

    const std::set<int> protocols(merged.protocols().begin(), merged.protocols().end());
    merged.clear_protocols();
    for (const int protocol : protocols)
    {
        merged.add_protocols(static_cast<SXCommon::DiscoveryProtocol>(protocol));
    }

    *merged.mutable_productinfo() = MergeProductInfo(existing.productinfo(), update.productinfo());
    return merged;
}

Sonarix::ProductInfo MergeProductInfo(const Sonarix::ProductInfo& existing, const Sonarix::ProductInfo& update)
{
    Sonarix::ProductInfo merged = existing;
    merged.MergeFrom(update);
    ReduceIconsAndServices(merged);
    if (merged.icons_size() > kMaxElements)
    {
        *merged.mutable_icons() = update.icons();
    }
    if (merged.services_size() > kMaxElements)
    {
        *merged.mutable_services() = update.services();
    }
    if (update.has_capabilities())
    {
        *merged.mutable_capabilities() = update.capabilities(); // MergeFrom doubles its lists
    }
    *merged.mutable_children() = update.children();
    return merged;
}

void ReduceIconsAndServices(Sonarix::ProductInfo& info)
{
    ReduceByKey(*info.mutable_icons(), &SXCommon::Icon::url);
    ReduceByKey(*info.mutable_services(), &SXCommon::Service::serviceid);
}

void CopyAddress(const Sonarix::ProductInfo& from, Sonarix::ProductInfo& to)
{
    to.clear_ipaddress();
    if (from.has_ipaddress())
    {
        to.set_ipaddress(from.ipaddress());
    }
}

} // namespace SonarixService
