#pragma once

#include <optional>
#include <string>

/// The unit's manufacturing data: one flat JSON object of strings in the file SONARIX_MFG_DATA, by default
/// "/mnt/nv/product-persistence/MfgData.json". Read once per process, at the first call. Safe from any thread.
class MfgData
{
public:
    /// Returns nothing if the key is not set or the file is missing, for example on a development machine. If the file
    /// cannot be read or is not a flat object of strings, returns nothing and logs one level-1 line.
    static std::optional<std::string> Get(const char* key);
};
