#pragma once

#include "schemas/HubApi.pb.h"
#include "tools/hub-service/Advertiser.h"

#include <memory>
#include <optional>
#include <string>

class NotifyTargetTaskIF;
class PorticoClientIF;
namespace Sonarix
{
class ProductInfo;
}

/// Connects the advertiser to the gateway: subscribes to the own record and the network status, posts the description.
/// Task: `task`; Start() may be called on any thread. Never destroyed.
class HubClient
{
public:
    HubClient(NotifyTargetTaskIF* task, HUBAPI::AdvertisementInfo info);
    HubClient(const HubClient&) = delete;
    HubClient& operator=(const HubClient&) = delete;

    void Start(const std::string& host, int port);

private:
    void HandleConnection(bool isConnected);
    void Subscribe();
    void RequestValues();
    std::string NameIn(const Sonarix::ProductInfo& info) const;
    void PostDescription();
    void HandlePosted(const std::string& errorBody);

    NotifyTargetTaskIF* m_task;
    const HUBAPI::AdvertisementInfo m_info;
    std::shared_ptr<PorticoClientIF> m_client;
    std::string m_gateway; ///< host and port, for messages
    bool m_isConnected = false;
    std::string m_lastError; ///< an error is printed once, not at each attempt
    std::optional<Advertiser> m_advertiser;
};
