#include <MfgData.h>

#include "runtime/DPrint.h"
#include "runtime/SystemUtils.h"

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <map>
#include <stdexcept>

namespace
{

const DPrint s_log("MfgData");

const char* Path()
{
    const char* const path = std::getenv("SONARIX_MFG_DATA");
    return path != nullptr ? path : "/mnt/nv/product-persistence/MfgData.json";
}

/// Throws std::runtime_error, with the reason, if `text` is not a flat JSON object of strings.
std::map<std::string, std::string> ValuesFromJson(const std::string& text)
{
    const nlohmann::json document = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object())
    {
        throw std::runtime_error("no JSON object");
    }
    std::map<std::string, std::string> values;
    for (const auto& [key, value] : document.items())
    {
        if (!value.is_string())
        {
            throw std::runtime_error("\"" + key + "\" is no string");
        }
        values[key] = value.get<std::string>();
    }
    return values;
}

std::map<std::string, std::string> Load()
{
    const std::optional<std::string> text = SystemUtils::ReadFile(Path());
    if (!text)
    {
        return {};
    }
    try
    {
        return ValuesFromJson(*text);
    }
    catch (const std::runtime_error& failure)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, Path() << ": " << failure.what() << "; the unit has no manufacturing data");
        return {};
    }
}

} // namespace

std::optional<std::string> MfgData::Get(const char* key)
{
    static const std::map<std::string, std::string> values = Load();
    const auto found = values.find(key);
    return found == values.end() ? std::nullopt : std::make_optional(found->second);
}
