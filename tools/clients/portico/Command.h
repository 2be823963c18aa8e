#pragma once

#include "tools/clients/options/Options.h"
#include <PorticoClientIF.h>

#include <cstdint>
#include <string>

/// What the person asked for. A value.
struct Command
{
    std::string host;
    std::uint16_t port = 0;
    std::string guid; ///< empty: this product
    bool isWatch = false;
    Portico::Verb verb = Portico::Verb::GET;
    std::string path;
    std::string body; ///< JSON text; "{}" where a verb that takes one got none
};

/// False, with the reason in `error`: a usage error. Reads the body from where it says (`@FILE`, `-`).
[[nodiscard]] bool ReadCommand(const Options& options, Command& command, std::string& error);
