#pragma once

#include "tools/clients/options/Options.h"
#include <PorticoClientIF.h>

#include <cstdint>
#include <string>

/// The parsed command line. A value.
struct Command
{
    std::string host;
    std::uint16_t port = 0;
    std::string guid; ///< empty: this product
    bool isWatch = false;
    Portico::Verb verb = Portico::Verb::GET;
    std::string path;
    std::string body; ///< JSON text; "{}" if the verb takes a body and none is given
};

/// Returns false, with the reason in `error`, for a usage error. Reads the body from a file or standard input.
[[nodiscard]] bool ReadCommand(const Options& options, Command& command, std::string& error);
