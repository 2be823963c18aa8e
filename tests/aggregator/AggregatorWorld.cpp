#include "tests/aggregator/AggregatorWorld.h"

#include "aggregator/DiscoveryServiceAggregator.h"
#include "tests/support/TempDirectory.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace
{

/// Manufacturing data are read once per process. The configuration directory is empty unless a test writes to it.
class Files final : public testing::Environment
{
public:
    void SetUp() override
    {
        std::ofstream(m_folder.Path() + "/mfg.json") << R"({"guid":")" << kOwn << R"("})";
        setenv("SONARIX_MFG_DATA", (m_folder.Path() + "/mfg.json").c_str(), 1);
        std::filesystem::create_directory(m_folder.Path() + "/etc");
        setenv("SONARIX_ETC_DIR", (m_folder.Path() + "/etc/").c_str(), 1);
    }

private:
    TempDirectory m_folder;
};

const testing::Environment* const s_files = testing::AddGlobalTestEnvironment(new Files);

} // namespace

Sonarix::Product Report::By(SXCommon::DiscoveryProtocol protocol) const
{
    Sonarix::Product product;
    product.add_protocols(protocol);
    product.mutable_serviceid()->set_type("_kova-lanyard._tcp");
    product.set_state(SXCommon::ONLINE);
    Sonarix::ProductInfo& info = *product.mutable_productinfo();
    info.set_guid(guid);
    info.set_ecosystem("ORB2");
    if (!name.empty())
    {
        info.set_friendlyname(name);
    }
    if (more)
    {
        more(info);
    }
    return product;
}

AggregatorTest::AggregatorTest()
{
    controller->ssdp = ssdp;
    controller->mdns = mdns;
}

void AggregatorTest::Start()
{
    aggregator = SonarixService::DiscoveryServiceAggregator::Create(task, controller);
    aggregator->RegisterForProductList([this](const Sonarix::ProductList& list) { lists.push_back(list); });
    aggregator->RegisterForMyProductInfo([this](const Sonarix::ProductInfo& info) { infos.push_back(info); });
    simulation.RunUntilIdle();
}

void AggregatorTest::StartAsHost()
{
    Start();
    BecomeHost();
    infos.clear();
}

void AggregatorTest::Ssdp(const Report& report)
{
    ssdp->Report(report.By(SXCommon::SSDP));
    simulation.RunUntilIdle();
}

void AggregatorTest::Mdns(const Report& report)
{
    mdns->Report(report.By(SXCommon::MDNS));
    simulation.RunUntilIdle();
}

void AggregatorTest::BecomeHost()
{
    aggregator->InitializeProtocols(SXCommon::HOST, "10.0.0.1");
    simulation.RunUntilIdle();
}

void AggregatorTest::Heartbeat(const std::string& guid, PORTICO_CLIENT_ERRORS status)
{
    ASSERT_TRUE(IsWatched(guid) && Remote(guid)->SendHeartbeat(status)) << guid;
    simulation.RunUntilIdle();
}

void AggregatorTest::Answer(const std::string& guid, const std::string& json)
{
    ASSERT_TRUE(IsWatched(guid) && Remote(guid)->AnswerText(kInfoPath, json)) << guid;
    simulation.RunUntilIdle();
}

void AggregatorTest::Answer(const std::string& guid)
{
    Answer(guid, R"({"guid":")" + guid + R"("})");
}

std::shared_ptr<FakeConnection> AggregatorTest::Remote(const std::string& guid) const
{
    return portico.Find("DiscoveryServiceAggregator-" + guid);
}

bool AggregatorTest::IsWatched(const std::string& guid) const
{
    return Remote(guid) && Remote(guid)->IsOpen();
}

std::vector<std::string> AggregatorTest::Guids() const
{
    Sonarix::ProductList list;
    list.add_products(); // GetProductList must remove it
    aggregator->GetProductList(list);
    std::vector<std::string> guids;
    std::transform(list.products().begin(), list.products().end(), std::back_inserter(guids),
                   [](const Sonarix::Product& product) { return product.productinfo().guid(); });
    return guids;
}

Sonarix::Product AggregatorTest::Row(const std::string& guid) const
{
    Sonarix::ProductList list;
    aggregator->GetProductList(list);
    const auto row = std::find_if(list.products().begin(), list.products().end(),
                                  [&guid](const Sonarix::Product& one) { return one.productinfo().guid() == guid; });
    return row != list.products().end() ? *row : Sonarix::Product();
}

Sonarix::ProductInfo AggregatorTest::Own() const
{
    Sonarix::ProductInfo own;
    aggregator->GetMyProductInfo([&own](const Sonarix::ProductInfo& info) { own = info; }, {});
    return own;
}
