#include "service/ProductListText.h"

#include "schemas/Sonarix.pb.h"

namespace SonarixService
{

std::string ProductListText(const Sonarix::ProductList& list)
{
    std::string text;
    for (const Sonarix::Product& product : list.products())
    {
        const Sonarix::ProductInfo& info = product.productinfo();
        text += "FRIENDLYNAME: " + info.friendlyname() + " IP: " + info.ipaddress();
        if (!info.guid().empty())
        {
            text += " GUID: " + info.guid();
        }
        if (!info.ecosystem().empty())
        {
            text += " ECOSYSTEM: " + info.ecosystem();
        }
        if (!info.clockinfo().clockdomain().empty())
        {
            text += " ECOCLOCK: \n" + info.clockinfo().DebugString();
        }
        text += '\n';
    }
    return text + "( " + std::to_string(list.products_size()) + " products )\n";
}

} // namespace SonarixService
