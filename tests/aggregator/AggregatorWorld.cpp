#include "AggregatorWorld.h"

#include "DPrint.h"
#include "DiscoveryServiceAggregator.h"
#include "ProtoToMarkup.h"
#include "Task.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace
{

const char* const kInfoPath = "/sonarix/info";

/// Manufacturing data are read once a process; the version files are not there unless a test makes some.
class Files final : public testing::Environment
{
public:
    void SetUp() override
    {
        std::string folder = (std::filesystem::temp_directory_path() / "aggregator-test-XXXXXX").string();
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        m_folder = folder;
        std::ofstream(folder + "/mfg.json") << R"({"guid":")" << kOwn << R"("})";
        setenv("SONARIX_MFG_DATA", (folder + "/mfg.json").c_str(), 1);
        setenv("SONARIX_ETC_DIR", (folder + "/").c_str(), 1);
        DPrint::SetLevels("1");
    }
    void TearDown() override
    {
        std::filesystem::remove_all(m_folder);
    }

private:
    std::string m_folder;
};

const testing::Environment* const s_files = testing::AddGlobalTestEnvironment(new Files);

} // namespace

LogLines::QuietAfterwards::~QuietAfterwards()
{
    DPrint::SetLevels("1");
}

std::size_t LogLines::Count(const std::string& part, int level) const
{
    const std::vector<LogCapture::Line> lines = m_capture.Lines();
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(),
                                                  [&](const LogCapture::Line& line) {
                                                      return (level == 0 || static_cast<int>(line.m_level) == level) &&
                                                             line.m_text.find(part) != std::string::npos;
                                                  }));
}

Sonarix::Product Report::Product() const
{
    Sonarix::Product product;
    for (const SXCommon::DiscoveryProtocol protocol : protocols)
    {
        product.add_protocols(protocol);
    }
    product.mutable_serviceid()->set_type(type);
    product.set_state(state);
    product.mutable_productinfo()->set_guid(guid);
    product.mutable_productinfo()->set_ecosystem("ORB2");
    if (!address.empty())
    {
        product.mutable_productinfo()->set_ipaddress(address);
    }
    if (!name.empty())
    {
        product.mutable_productinfo()->set_friendlyname(name);
    }
    return product;
}

AggregatorWorld::AggregatorWorld(std::uint64_t seed)
    : simulation(seed)
    , task(IL::CreateTask("DiscoveryServiceControllerTask", ""))
{
    controller->ssdp = ssdp;
    controller->mdns = mdns;
}

AggregatorWorld::~AggregatorWorld() = default;

void AggregatorWorld::Start()
{
    aggregator = SonarixService::DiscoveryServiceAggregator::Create(task, controller);
    aggregator->RegisterForProductList([this](const Sonarix::ProductList& list) { lists.push_back(list); });
    aggregator->RegisterForMyProductInfo([this](const Sonarix::ProductInfo& info) { infos.push_back(info); });
    simulation.RunUntilIdle();
}

void AggregatorWorld::StartAs(SXCommon::ProductMode mode, const std::string& address)
{
    Start();
    SetMode(mode, address);
    infos.clear();
}

void AggregatorWorld::Ssdp(const Sonarix::Product& product)
{
    ssdp->Report(product);
    simulation.RunUntilIdle();
}

void AggregatorWorld::Mdns(const Sonarix::Product& product)
{
    mdns->Report(product);
    simulation.RunUntilIdle();
}

void AggregatorWorld::Ssdp(const std::string& guid, SXCommon::ProductState state)
{
    Ssdp(Report{.guid = guid, .state = state, .protocols = {SXCommon::SSDP}}.Product());
}

void AggregatorWorld::Mdns(const std::string& guid, SXCommon::ProductState state)
{
    Mdns(Report{.guid = guid, .state = state, .protocols = {SXCommon::MDNS}}.Product());
}

std::shared_ptr<const FakeAnswer> AggregatorWorld::Child(Portico::Verb verb, const Sonarix::Product& product)
{
    auto answer = portico.Find("DiscoveryServiceOverPortico")
                      ->Call(verb, "/sonarix/private/products", ProtoToMarkup::ToJson(product, true, false, false));
    simulation.RunUntilIdle();
    return answer;
}

void AggregatorWorld::SetMode(SXCommon::ProductMode mode)
{
    SetMode(mode, Own().ipaddress());
}

void AggregatorWorld::SetMode(SXCommon::ProductMode mode, const std::string& address)
{
    aggregator->InitializeProtocols(mode, address);
    simulation.RunUntilIdle();
}

void AggregatorWorld::Heartbeat(const std::string& guid, int status)
{
    ASSERT_TRUE(Remote(guid)) << guid;
    ASSERT_TRUE(Remote(guid)->SendHeartbeat(static_cast<PORTICO_CLIENT_ERRORS>(status))) << guid;
    simulation.RunUntilIdle();
}

void AggregatorWorld::Answer(const std::string& guid, const Sonarix::ProductInfo& info)
{
    ASSERT_TRUE(Remote(guid)) << guid;
    ASSERT_TRUE(Remote(guid)->Answer(kInfoPath, info)) << guid;
    simulation.RunUntilIdle();
}

void AggregatorWorld::Answer(const std::string& guid)
{
    Answer(guid, Info(guid));
}

void AggregatorWorld::Pass(std::chrono::milliseconds duration)
{
    simulation.RunFor(duration);
}

std::shared_ptr<FakeConnection> AggregatorWorld::Remote(const std::string& guid) const
{
    return portico.Find("DiscoveryServiceAggregator-" + guid);
}

bool AggregatorWorld::IsWatched(const std::string& guid) const
{
    const std::shared_ptr<FakeConnection> remote = Remote(guid);
    return remote && remote->IsOpen();
}

std::size_t AggregatorWorld::Queries(const std::string& guid) const
{
    return Remote(guid) ? Remote(guid)->Requests(kInfoPath).size() : 0;
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
    for (const Sonarix::Product& product : list.products())
    {
        guids.push_back(product.productinfo().guid());
    }
    return guids;
}

Sonarix::Product AggregatorWorld::Row(const std::string& guid) const
{
    const Sonarix::ProductList list = List();
    for (const Sonarix::Product& product : list.products())
    {
        if (product.productinfo().guid() == guid)
        {
            return product;
        }
    }
    return {};
}

SXCommon::ProductState AggregatorWorld::State(const std::string& guid) const
{
    return Row(guid).state();
}

Sonarix::ProductInfo AggregatorWorld::Own() const
{
    Sonarix::ProductInfo own;
    aggregator->GetMyProductInfo([&own](const Sonarix::ProductInfo& info) { own = info; }, {});
    return own;
}

Sonarix::ProductInfo AggregatorWorld::Info(const std::string& guid, const std::string& name)
{
    Sonarix::ProductInfo info;
    info.set_guid(guid);
    if (!name.empty())
    {
        info.set_friendlyname(name);
    }
    return info;
}
