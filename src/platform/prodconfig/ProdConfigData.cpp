#include <ProdConfigData.h>

#include "runtime/DPrint.h"
#include "runtime/SystemUtils.h"

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>

namespace
{

const DPrint s_log("ProdConfigData");

const char* Path()
{
    const char* const path = std::getenv("SONARIX_PRODUCT_CONFIG");
    return path != nullptr ? path : "/mnt/nv/product-persistence/ProductConfig.json";
}

/// Throws std::runtime_error, with the reason, if `text` is not a JSON object or "accessoryMode" is not a boolean.
bool AccessoryModeFromJson(const std::string& text)
{
    const nlohmann::json document = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object())
    {
        throw std::runtime_error("no JSON object");
    }
    const auto found = document.find("accessoryMode");
    if (found == document.end())
    {
        return false;
    }
    if (!found->is_boolean())
    {
        throw std::runtime_error("\"accessoryMode\" is no boolean");
    }
    return found->get<bool>();
}

} // namespace

bool ProdConfigData::IsDeviceInAccessoryMode()
{
    const std::optional<std::string> text = SystemUtils::ReadFile(Path());
    if (!text)
    {
        return false;
    }
    try
    {
        return AccessoryModeFromJson(*text);
    }
    catch (const std::runtime_error& failure)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, Path() << ": " << failure.what() << "; the unit is not in accessory mode");
        return false;
    }
}
