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

/// Joins the advertiser to the gateway: hears of the own record and of the network, posts the description.
/// Task: everything on the task given, Start() from anywhere. Lives as long as the process.
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
    void Ask();
    std::string NameIn(const Sonarix::ProductInfo& info) const;
    void PostDescription();
    void HandlePosted(const std::string& errorBody);

    NotifyTargetTaskIF* m_task;
    const HUBAPI::AdvertisementInfo m_info;
    std::shared_ptr<PorticoClientIF> m_client;
    std::string m_gateway; ///< host and port, for people
    bool m_isConnected = false;
    std::string m_lastError; ///< one line for each new trouble, not for each attempt
    std::optional<Advertiser> m_advertiser;
};
