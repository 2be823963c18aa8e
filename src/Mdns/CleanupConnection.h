#pragma once

#include "Callback.h"
#include "CallbackConnection.h"

namespace MDNS
{

/// A subscription around an Avahi object: disconnecting, or dropping the last handle, first runs `cleanup`, which
/// frees the Avahi object under the poll lock, and only then drops the adapter that its callbacks reach, so that
/// no callback can land on a dead adapter.
CallbackConnection MakeCleanupConnection(Callback<> cleanup, CallbackConnection connection);

/// The same around what has no adapter of its own, or several in turn.
CallbackConnection MakeCleanupConnection(Callback<> cleanup);

} // namespace MDNS
