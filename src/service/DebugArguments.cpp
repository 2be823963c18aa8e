#include "service/DebugArguments.h"

#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"

#include <functional>
#include <map>

namespace SonarixService::DebugArguments
{

namespace
{

template <class Record>
using Fields = std::map<std::string, std::string* (Record::*)()>;

const Fields<Sonarix::ProductInfo>& InfoFields()
{
    using Info = Sonarix::ProductInfo;
    static const Fields<Info> s_fields = {
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
    return s_fields;
}

const Fields<SonarixPb::ServiceId>& IdFields()
{
    using Id = SonarixPb::ServiceId;
    static const Fields<Id> s_fields = {
        {"name", &Id::mutable_name}, {"type", &Id::mutable_type}, {"domain", &Id::mutable_domain}};
    return s_fields;
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

void Read(const std::list<std::string>& arguments, Sonarix::ProductInfo& info, std::vector<std::string>& skipped)
{
    ForEachPair(arguments, skipped,
                [&info](const std::string& key, const std::string& value)
                {
                    const auto field = InfoFields().find(key);
                    if (field != InfoFields().end())
                    {
                        *(info.*field->second)() = value;
                    }
                });
}

void Read(const std::list<std::string>& arguments, SonarixPb::Service& service, std::vector<std::string>& skipped)
{
    ForEachPair(arguments, skipped,
                [&service](const std::string& key, const std::string& value)
                {
                    const auto field = IdFields().find(key);
                    if (field != IdFields().end())
                    {
                        *(service.mutable_id()->*field->second)() = value;
                        return;
                    }
                    SonarixPb::ServiceRecords* const record = service.add_txt();
                    record->set_key(key);
                    record->set_value(value);
                });
}

} // namespace SonarixService::DebugArguments
