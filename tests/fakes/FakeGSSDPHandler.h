#pragma once

#include "runtime/CallbackRegistry.h"
#include "ssdp/GSSDPHandlerIF.h"
#include "tests/fakes/FakeDiscovery.h"

#include <memory>
#include <string>
#include <vector>

/// A scripted handler. It replaces the real one while it exists; `calls` records its creation and its release.
struct FakeGSSDPHandler final : SonarixService::GSSDPHandlerIF, SonarixService::GSSDPHandlerIF::Factory
{
    FakeGSSDPHandler()
    {
        s_factoryOverride.Set(this);
    }
    ~FakeGSSDPHandler() override
    {
        s_factoryOverride.Set(nullptr);
    }
    std::shared_ptr<SonarixService::GSSDPHandlerIF> Create(const std::string& interfaceName) override
    {
        iface = interfaceName;
        calls->push_back("gssdp on " + iface);
        return {this, [log = calls](FakeGSSDPHandler*) { log->push_back("gssdp gone"); }}; // not owned
    }
    void RegisterForSearchStatus(const Callback<SearchStatus>& callback) override
    {
        status.Connect(callback);
    }
    void RegisterForResourceStatus(const Callback<ResourceStatus, std::string, std::string>& callback) override
    {
        resource.Connect(callback);
    }
    bool StartSearch(const std::string& target, int timeoutSec) override
    {
        searches.push_back(target + " " + std::to_string(timeoutSec));
        return isReady;
    }

    std::shared_ptr<FakeCalls> calls = std::make_shared<FakeCalls>();
    std::string iface;
    bool isReady = true;
    std::vector<std::string> searches;
    CallbackRegistry<SearchStatus> status;
    CallbackRegistry<ResourceStatus, std::string, std::string> resource;
};
