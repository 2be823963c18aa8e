#pragma once

#include "runtime/ipc/NetworkAddress.h"

#include <memory>
#include <string>

/// Maps the well-known names of the product's local services to socket addresses. Any thread.
class IPCDirectory
{
public:
    /// "SonarixMdnsService" is the socket of that name in the run directory (SONARIX_RUN_DIR). Every name has an
    /// address, even if no process listens there.
    virtual Network::Address Lookup(const std::string& service) const = 0;
    virtual ~IPCDirectory() = default;

    static std::shared_ptr<IPCDirectory> Get();
};
