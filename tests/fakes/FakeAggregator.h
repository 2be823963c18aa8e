#pragma once

#include "interfaces/DiscoveryServiceAggregatorIF.h"
#include "runtime/CallbackRegistry.h"
#include "schemas/Sonarix.pb.h"
#include "tests/fakes/FakeDiscovery.h"

#include <memory>
#include <set>
#include <string>
#include <vector>

/// The aggregator as the gateway client sees it. For one thread: that of the test or of the one task that uses it.
///
///     aggregator->list.add_products();       // the answer of GetProductList
///     aggregator->productLists.Send(list, CallbackConnection());
class FakeAggregator final : public SonarixService::DiscoveryServiceAggregatorIF
{
public:
    explicit FakeAggregator(std::shared_ptr<FakeCalls> log = std::make_shared<FakeCalls>())
        : calls(std::move(log))
    {
    }

    void Shutdown() override
    {
        calls->push_back("aggregator Shutdown");
    }
    CallbackConnection RegisterForMyProductInfo(const Callback<Sonarix::ProductInfo>& callback) override
    {
        callback(info);
        return productInfos.Connect(callback);
    }
    CallbackConnection RegisterForProductList(const Callback<Sonarix::ProductList>& callback) override
    {
        return productLists.Connect(callback);
    }
    void InitializeProtocols(const SXCommon::ProductMode& mode, const std::string& ipAddress) override
    {
        calls->push_back("aggregator InitializeProtocols " + SXCommon::ProductMode_Name(mode) + " " + ipAddress);
    }
    void GetProductList(Sonarix::ProductList& filled) override
    {
        filled = list;
    }
    void GetMyProductInfo(const Callback<Sonarix::ProductInfo>& response,
                          const Callback<SXCommon::SonarixError>& /*error*/) override
    {
        response(info);
    }
    void HandleProductInfoAdvertisement(const Sonarix::ProductInfo& advertised) override
    {
        calls->push_back("aggregator HandleProductInfoAdvertisement " + advertised.guid());
        info.MergeFrom(advertised);
    }
    void SetSupportedWifiBands(const std::set<std::string>& bands) override
    {
        calls->push_back("aggregator SetSupportedWifiBands");
        supportedWifiBands = bands;
    }

    const std::shared_ptr<FakeCalls> calls;
    Sonarix::ProductInfo info;
    Sonarix::ProductList list;
    std::set<std::string> supportedWifiBands;
    CallbackRegistry<Sonarix::ProductInfo> productInfos;
    CallbackRegistry<Sonarix::ProductList> productLists;
};
