#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"

namespace MDNS
{

/// The handle of a browser, a resolve or an entry group. Its end comes with Disconnect() or when the last copy of the
/// handle is dropped (a CallbackRegistry's handle differs: dropping that one disconnects nothing). The end first runs
/// `cleanup`, which frees the Avahi object under the poll lock. Then it disconnects `connection`, the adapter that the
/// callbacks of the Avahi object use, so no callback uses a destroyed adapter.
/// Without `connection` the handle is connected until its end.
CallbackConnection MakeCleanupConnection(Callback<> cleanup, CallbackConnection connection = {});

} // namespace MDNS
