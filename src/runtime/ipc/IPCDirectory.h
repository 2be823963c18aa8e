#pragma once

#include "runtime/ipc/NetworkAddress.h"

#include <memory>
#include <string>

/// Where the local services of the product are found, by their well-known names. Any thread.
class IPCDirectory
{
public:
    /// "SonarixMdnsService" is the socket of that name in the run directory (SONARIX_RUN_DIR). Any name has an address,
    /// whether somebody listens there or not.
    virtual Network::Address Lookup(const std::string& service) const = 0;
    virtual ~IPCDirectory() = default;

    static std::shared_ptr<IPCDirectory> Get();
};
