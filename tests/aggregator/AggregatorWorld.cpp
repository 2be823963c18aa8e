#include "AggregatorWorld.h"

#include "DiscoveryServiceAggregator.h"
#include "Task.h"
#include "TempDirectory.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace
{

/// Manufacturing data are read once a process; the version files are not there unless a test makes some.
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

Sonarix::Product Report::By(const std::vector<SXCommon::DiscoveryProtocol>& protocols) const
{
    Sonarix::Product product;
    product.mutable_protocols()->Add(protocols.begin(), protocols.end());
    product.mutable_serviceid()->set_type(type);
    product.set_state(state);
    Sonarix::ProductInfo& info = *product.mutable_productinfo();
    info.set_guid(guid);
    info.set_ecosystem(ecosystem);
    if (!address.empty())
    {
        info.set_ipaddress(address);
    }
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

AggregatorWorld::AggregatorWorld(std::uint64_t seed, const std::string& logLevels)
    : log(logLevels)
    , simulation(seed)
    , task(IL::CreateTask("DiscoveryServiceControllerTask", ""))
{
    controller->ssdp = ssdp;
    controller->mdns = mdns;
}

void AggregatorWorld::Start()
{
    aggregator = SonarixService::DiscoveryServiceAggregator::Create(task, controller);
    aggregator->RegisterForProductList([this](const Sonarix::ProductList& list) { lists.push_back(list); });
    aggregator->RegisterForMyProductInfo([this](const Sonarix::ProductInfo& info) { infos.push_back(info); });
    simulation.RunUntilIdle();
}

void AggregatorWorld::StartAs(SXCommon::ProductMode mode)
{
    Start();
    SetMode(mode);
    infos.clear();
}

void AggregatorWorld::Ssdp(const Report& report)
{
    ssdp->Report(report.By({SXCommon::SSDP}));
    simulation.RunUntilIdle();
}

void AggregatorWorld::Mdns(const Report& report)
{
    mdns->Report(report.By({SXCommon::MDNS}));
    simulation.RunUntilIdle();
}

void AggregatorWorld::SetMode(SXCommon::ProductMode mode, const std::string& address)
{
    aggregator->InitializeProtocols(mode, address);
    simulation.RunUntilIdle();
}

void AggregatorWorld::Heartbeat(const std::string& guid, PORTICO_CLIENT_ERRORS status)
{
    ASSERT_TRUE(IsWatched(guid) && Remote(guid)->SendHeartbeat(status)) << guid;
    simulation.RunUntilIdle();
}

void AggregatorWorld::Answer(const std::string& guid, const std::string& json)
{
    ASSERT_TRUE(IsWatched(guid) && Remote(guid)->AnswerText(kInfoPath, json)) << guid;
    simulation.RunUntilIdle();
}

void AggregatorWorld::Answer(const std::string& guid)
{
    Answer(guid, R"({"guid":")" + guid + R"("})");
}

std::shared_ptr<FakeConnection> AggregatorWorld::Remote(const std::string& guid) const
{
    return portico.Find("DiscoveryServiceAggregator-" + guid);
}

bool AggregatorWorld::IsWatched(const std::string& guid) const
{
    return Remote(guid) && Remote(guid)->IsOpen();
}

Sonarix::ProductList AggregatorWorld::List() const
{
    Sonarix::ProductList list;
    list.add_products(); // what was in there goes
    aggregator->GetProductList(list);
    return list;
}

std::vector<std::string> AggregatorWorld::Guids() const
{
    std::vector<std::string> guids;
    const Sonarix::ProductList list = List();
    std::transform(list.products().begin(), list.products().end(), std::back_inserter(guids),
                   [](const Sonarix::Product& product) { return product.productinfo().guid(); });
    return guids;
}

Sonarix::Product AggregatorWorld::Row(const std::string& guid) const
{
    const Sonarix::ProductList list = List();
    const auto row = std::find_if(list.products().begin(), list.products().end(),
                                  [&guid](const Sonarix::Product& one) { return one.productinfo().guid() == guid; });
    return row != list.products().end() ? *row : Sonarix::Product();
}

Sonarix::ProductInfo AggregatorWorld::Own() const
{
    Sonarix::ProductInfo own;
    aggregator->GetMyProductInfo([&own](const Sonarix::ProductInfo& info) { own = info; }, {});
    return own;
}

std::ptrdiff_t AggregatorWorld::Logged(const std::string& part) const
{
    const std::vector<LogCapture::Line> lines = log.Lines();
    return std::count_if(lines.begin(), lines.end(),
                         [&part](const LogCapture::Line& line) { return line.m_text.find(part) != std::string::npos; });
}
