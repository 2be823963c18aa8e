#pragma once

class NotifyTargetTaskIF;

namespace Portico
{

/// The one task of all gateway clients of the process, "PorticoClientIO": made at the first call, never stopped.
NotifyTargetTaskIF* IoTask();

} // namespace Portico
