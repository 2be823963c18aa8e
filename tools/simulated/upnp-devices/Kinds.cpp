#include "tools/simulated/upnp-devices/Kinds.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace
{

/// Names of the kinds, indexed by Kind.
constexpr std::array kNames{
    "product",   "renderer",    "hasty",        "no-location", "empty-location", "long-location", "other-scheme",
    "loopback",  "closed-port", "silent",       "slow",        "status-404",     "status-500",    "status-503",
    "redirect",  "huge-body",   "endless-body", "cut-xml",     "deep-xml",       "entity-xml",    "latin1-xml",
    "utf16-xml", "nul-byte",    "empty-body",   "flapping",
};
static_assert(kNames.size() == static_cast<std::size_t>(Kind::FLAPPING) + 1);

} // namespace

const char* Name(Kind kind)
{
    return kNames.at(static_cast<std::size_t>(kind));
}

std::optional<Kind> KindOf(const std::string& name)
{
    const auto found = std::find(kNames.begin(), kNames.end(), name);
    return found == kNames.end() ? std::nullopt : std::make_optional(static_cast<Kind>(found - kNames.begin()));
}

std::vector<Kind> AllKinds()
{
    std::vector<Kind> kinds;
    for (std::size_t number = 0; number < kNames.size(); ++number)
    {
        kinds.push_back(static_cast<Kind>(number));
    }
    return kinds;
}
