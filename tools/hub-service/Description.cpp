#include "tools/hub-service/Description.h"

#include "schemas/HubApi.pb.h"
#include "tools/clients/options/Options.h"
#include <MfgData.h>
#include <ProtoToMarkup.h>

#include <fstream>
#include <iterator>
#include <map>

namespace
{

using HUBAPI::AdvertisementInfo;
using Setter = void (AdvertisementInfo::*)(const std::string&);

const std::map<std::string, Setter>& Setters()
{
    static const std::map<std::string, Setter> setters = {
        {"name", &AdvertisementInfo::set_devicename<const std::string&>},
        {"type", &AdvertisementInfo::set_producttype<const std::string&>},
        {"product", &AdvertisementInfo::set_productname<const std::string&>},
        {"color", &AdvertisementInfo::set_productcolor<const std::string&>},
        {"software", &AdvertisementInfo::set_softwareversion<const std::string&>},
        {"language", &AdvertisementInfo::set_productlanguage<const std::string&>},
        {"serial", &AdvertisementInfo::set_serialnumber<const std::string&>},
        {"country", &AdvertisementInfo::set_country<const std::string&>},
    };
    return setters;
}

bool ReadFile(const std::string& path, AdvertisementInfo& info, std::string& error)
{
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!file)
    {
        error = "cannot read " + path;
        return false;
    }
    try
    {
        ProtoToMarkup::FromJson(text, &info, "AdvertisementInfo");
    }
    catch (const ProtoToMarkup::MarkupError& failure)
    {
        error = path + ": " + failure.what();
        return false;
    }
    return true;
}

} // namespace

std::vector<std::string> DescriptionOptions()
{
    std::vector<std::string> names;
    for (const auto& [name, setter] : Setters())
    {
        names.push_back(name);
    }
    return names;
}

bool ReadDescription(const Options& options, AdvertisementInfo& info, std::string& error)
{
    if (options.Words().size() > 1)
    {
        error = "more than one file";
        return false;
    }
    if (!options.Words().empty() && !ReadFile(options.Words().front(), info, error))
    {
        return false;
    }
    for (const auto& [name, setter] : Setters())
    {
        if (const auto value = options.Get(name))
        {
            (info.*setter)(*value);
        }
    }
    if (info.devicename().empty())
    {
        error = "no name: give --name or a file with \"deviceName\"";
        return false;
    }
    info.set_guid(MfgData::Get("guid").value_or("guid.is.not.set.perhaps.x86"));
    if (!info.has_ecosys())
    {
        info.set_ecosys("ORB2");
    }
    return true;
}
