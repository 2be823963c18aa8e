#pragma once

#include "schemas/NetManager.pb.h"

#include <memory>
#include <string>

class NotifyTargetTaskIF;
class PorticoClientIF;

/// Serves "/network/status" and "/network/wifi/stationUsage" through the gateway and notifies them: at each change,
/// and each time that the gateway connection stands anew, since a new gateway knows nothing.
/// Task: everything on the task given, Start() and Update() from anywhere. Lives as long as the process.
class Publisher
{
public:
    Publisher(NotifyTargetTaskIF* task, NetManager::Protobuf::NetworkStatus status,
              NetManager::Protobuf::StationUsage usage);
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    void Start(const std::string& host, int port);
    /// An unchanged status is no news.
    void Update(const NetManager::Protobuf::NetworkStatus& status);

private:
    void HandleConnection(bool isConnected);
    void HandleUpdate(const NetManager::Protobuf::NetworkStatus& status);

    NotifyTargetTaskIF* m_task;
    NetManager::Protobuf::NetworkStatus m_status;
    NetManager::Protobuf::StationUsage m_usage;
    std::shared_ptr<PorticoClientIF> m_client;
};
