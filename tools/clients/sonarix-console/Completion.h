#pragma once

#include "tools/clients/sonarix-console/Wire.h"

#include <string>
#include <vector>

/// What Tab offers. Stateless.
struct Completion
{
    std::string addition; ///< what all candidates have in common behind the cursor, a blank after the only one
    std::vector<std::string> offered; ///< to be shown where there is nothing to add

    /// `before`: the line up to the cursor. Offers the next word of the commands, and behind a whole one the keys that
    /// its usage names.
    static Completion Of(const std::vector<Wire::Command>& commands, const std::string& before);
};
