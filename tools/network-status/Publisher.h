#pragma once

#include "schemas/NetManager.pb.h"

#include <memory>
#include <string>

class NotifyTargetTaskIF;
class PorticoClientIF;

/// Serves "/network/status" and "/network/wifi/stationUsage" through the gateway. Notifies both at each change and
/// after each reconnection, because a restarted gateway has no notifications. Task: `task`; Start() and Update() may be
/// called on any thread. Never destroyed.
class Publisher
{
public:
    Publisher(NotifyTargetTaskIF* task, NetManager::Protobuf::NetworkStatus status,
              NetManager::Protobuf::StationUsage usage);
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    void Start(const std::string& host, int port);
    /// Does not notify an unchanged status.
    void Update(const NetManager::Protobuf::NetworkStatus& status);

private:
    void HandleConnection(bool isConnected);
    void HandleUpdate(const NetManager::Protobuf::NetworkStatus& status);

    NotifyTargetTaskIF* m_task;
    NetManager::Protobuf::NetworkStatus m_status;
    NetManager::Protobuf::StationUsage m_usage;
    std::shared_ptr<PorticoClientIF> m_client;
};
