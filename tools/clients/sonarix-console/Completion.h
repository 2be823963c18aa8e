#pragma once

#include "tools/clients/sonarix-console/ConsoleMessages.h"

#include <string>
#include <vector>

/// The completion that Tab offers. A value.
struct Completion
{
    std::string addition; ///< text to insert: the common rest of all candidates, and a blank after a single one
    std::vector<std::string> offered; ///< the candidates, shown if there is nothing to insert

    /// `before` is the line up to the cursor. Offers the next word of each command; after a whole command, the keys in
    /// its usage text.
    static Completion Of(const std::vector<ConsoleMessages::Command>& commands, const std::string& before);
};
