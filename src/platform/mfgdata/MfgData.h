#pragma once

#include <optional>
#include <string>

/// The unit's manufacturing data: one flat JSON object of strings in the file SONARIX_MFG_DATA, by default
/// "/mnt/nv/product-persistence/MfgData.json". Read once, at the first call. Safe from any thread.
class MfgData
{
public:
    /// Nothing where the key is not set, the file is missing (as on a development machine), or it cannot be
    /// read or is no flat object of strings (then one level-1 line).
    static std::optional<std::string> Get(const char* key);
};
