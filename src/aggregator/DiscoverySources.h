#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"
#include "runtime/Liveness.h"
#include "runtime/Timers.h"
#include "schemas/Sonarix.pb.h"

#include <memory>

namespace SonarixService
{

class DiscoveryServiceControllerIF;
class MdnsDiscoveryProtocolIF;
class SsdpDiscoveryProtocolIF;

/// The two discovery sources, SSDP and mDNS: forwards their reports, and reads their lists every 6 hours, so that a
/// product whose reports were lost comes back.
/// Task: everything on `task` (checked in debug builds), Subscribe() also on the main thread while the task is held.
/// Sources may report on any thread. Owner: the aggregator. Holds the controller strongly on purpose. After destruction
/// no callback runs. A refresh blocks the task for at most 1 s.
class DiscoverySources final
{
public:
    using ReportHandler = Callback<const Sonarix::Product>;
    using ListHandler = Callback<Sonarix::ProductList>;

    /// The handlers run on `task`.
    DiscoverySources(NotifyTargetTaskIF* task, std::shared_ptr<DiscoveryServiceControllerIF> controller,
                     ReportHandler onSsdpReport, ReportHandler onMdnsReport, ListHandler onList);

    /// Fetches each source from the controller and subscribes to it, unless that has been done before.
    void Subscribe();
    /// Arms the next refresh, 6 hours from now. Each refresh calls it again.
    void PeriodicGetProductList();
    void Shutdown(); ///< the refresh goes on with no source

private:
    void HandlePeriodicGetProductList();
    void RefreshFromSsdp();
    void RefreshFromMdns();

    NotifyTargetTaskIF* m_task;
    std::shared_ptr<DiscoveryServiceControllerIF> m_controller;
    const ReportHandler m_onSsdpReport;
    const ReportHandler m_onMdnsReport;
    const ListHandler m_onList;
    MessageTimer m_periodicResolverTimer;
    std::shared_ptr<SsdpDiscoveryProtocolIF> m_ssdpProtocol;
    std::shared_ptr<MdnsDiscoveryProtocolIF> m_mdnsProtocol;
    CallbackConnection m_mdnsConnection;
    CallbackConnection m_ssdpConnection;
    Liveness m_liveness;
};

} // namespace SonarixService
