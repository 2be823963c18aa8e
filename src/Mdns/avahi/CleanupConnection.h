#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"

namespace MDNS
{

/// A subscription around an Avahi object: disconnecting, or dropping the last handle, first runs `cleanup`, which
/// frees the Avahi object under the poll lock, and only then drops the adapter that its callbacks reach, so that
/// no callback can land on a dead adapter. What has no adapter, or several in turn, comes without: such a subscription
/// is connected until it is disconnected.
CallbackConnection MakeCleanupConnection(Callback<> cleanup, CallbackConnection connection = {});

} // namespace MDNS
