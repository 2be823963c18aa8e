#include "service/DebugArguments.h"

#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"

#include <functional>
#include <map>

namespace SonarixService::DebugArguments
{

namespace
{

using Info = Sonarix::ProductInfo;
using Id = SonarixPb::ServiceId;

template <class Record>
using Fields = std::map<std::string, std::string* (Record::*)()>;

const Fields<Info> s_infoFields = {
    {"ipaddress", &Info::mutable_ipaddress},
    {"friendlyname", &Info::mutable_friendlyname},
    {"guid", &Info::mutable_guid},
    {"ecosystem", &Info::mutable_ecosystem},
    {"modelname", &Info::mutable_modelname},
    {"manufacturer", &Info::mutable_manufacturer},
    {"productcolor", &Info::mutable_productcolor},
    {"location", &Info::mutable_location},
    {"macaddress", &Info::mutable_macaddress},
    {"devicetype", &Info::mutable_devicetype},
    {"modelnumber", &Info::mutable_modelnumber},
    {"modeldescription", &Info::mutable_modeldescription},
};

const Fields<Id> s_idFields = {
    {"name", &Id::mutable_name}, {"type", &Id::mutable_type}, {"domain", &Id::mutable_domain}};

/// False if `key` is not in `fields`.
template <class Record>
bool Set(const Fields<Record>& fields, Record& record, const std::string& key, const std::string& value)
{
    const auto field = fields.find(key);
    if (field == fields.end())
    {
        return false;
    }
    *(record.*field->second)() = value;
    return true;
}

void ForEachPair(const std::list<std::string>& arguments, std::vector<std::string>& skipped,
                 const std::function<void(const std::string& key, const std::string& value)>& take)
{
    for (const std::string& argument : arguments)
    {
        const std::size_t equals = argument.find('=');
        if (equals == std::string::npos || equals == 0)
        {
            skipped.push_back(argument);
            continue;
        }
        const std::size_t begin = equals + 1;
        take(argument.substr(0, equals), argument.substr(begin, argument.find('=', begin) - begin));
    }
}

} // namespace

Sonarix::ProductInfo ProductInfoFromArguments(const std::list<std::string>& arguments,
                                              std::vector<std::string>& skipped)
{
    Sonarix::ProductInfo info;
    ForEachPair(arguments, skipped,
                [&info](const std::string& key, const std::string& value) { Set(s_infoFields, info, key, value); });
    return info;
}

SonarixPb::Service ServiceFromArguments(const std::list<std::string>& arguments, std::vector<std::string>& skipped)
{
    SonarixPb::Service service;
    ForEachPair(arguments, skipped,
                [&service](const std::string& key, const std::string& value)
                {
                    if (!Set(s_idFields, *service.mutable_id(), key, value))
                    {
                        SonarixPb::ServiceRecords* const record = service.add_txt();
                        record->set_key(key);
                        record->set_value(value);
                    }
                });
    return service;
}

} // namespace SonarixService::DebugArguments
