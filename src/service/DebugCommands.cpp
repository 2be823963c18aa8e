#include "service/DebugCommands.h"

#include "interfaces/DiscoveryServiceIPCServerIF.h"
#include "interfaces/DiscoveryServicePorticoClientIF.h"
#include "interfaces/MdnsDiscoveryProtocolIF.h"
#include "interfaces/SsdpDiscoveryProtocolIF.h"
#include "ipc/ProductConversion.h"
#include "runtime/AsyncCallback.h"
#include "runtime/ConditionSemaphore.h"
#include "runtime/DPrint.h"
#include "runtime/ThreadMutex.h"
#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"
#include "service/DebugArguments.h"
#include "service/DebugCommandTable.h"
#include "service/ProductListText.h"

#include <algorithm>
#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("DiscoveryServiceController");

const char* const kRendererType = "_kova-lanyard._tcp";
const char* const kClockType = "_kova-clock._tcp";

/// How many arguments a command can do something with.
struct Takes
{
    std::size_t least;
    std::size_t most;
};

Takes TakenBy(int cmdKey)
{
    constexpr std::size_t any = static_cast<std::size_t>(-1);
    switch (cmdKey)
    {
    case SSDP_REMOVEDEVICE:
    case SSDP_ADDDEVICE:
    case MDNS_REMOVEDEVICE:
    case MDNS_ADDDEVICE:
    case MDNS_ADDSERVICE:
    case MDNS_REMOVESERVICE:
        return {1, any};
    case MDNS_LIST:
    case MDNS_CLEARALL:
        return {0, 1};
    default:
        return {0, 0};
    }
}

} // namespace

/// Made-up products of one discovery source, and the console's idea of whether it runs.
struct DebugCommands::TestingList
{
    SXCommon::DiscoveryProtocol protocol;
    bool isRunning = true;
    Sonarix::ProductList products = {};
};

/// What mDNS told, in the order of its answers. Outlives the command where one comes late.
struct DebugCommands::MdnsAnswers
{
    CThreadMutex mutex;
    std::string text;
};

DebugCommands::DebugCommands(Surroundings surroundings)
    : m_with(std::move(surroundings))
    , m_ssdp(new TestingList{SXCommon::SSDP})
    , m_mdns(new TestingList{SXCommon::MDNS})
{
}

DebugCommands::~DebugCommands() = default;

std::string DebugCommands::HandleCliCmd(int cmdKey, const Arguments& arguments)
{
    const auto& table = DebugCommandTable();
    const auto command =
        std::find_if(table.begin(), table.end(), [cmdKey](const DebugCommand& row) { return row.key == cmdKey; });
    if (command == table.end())
    {
        return "Command not found";
    }
    m_command = command->command;
    CheckArguments(cmdKey, arguments);
    return cmdKey < MDNS_LIST ? HandleSsdp(cmdKey, arguments) : HandleMdns(cmdKey, arguments);
}

std::string DebugCommands::HandleSsdp(int cmdKey, const Arguments& arguments)
{
    switch (cmdKey)
    {
    case SSDP_LIST:
        return ListSsdp();
    case SSDP_START:
        return StartSsdp();
    case SSDP_STOP:
        return StopSsdp();
    case SSDP_CLEARALL:
        return ClearSsdp();
    case SSDP_REMOVEDEVICE:
        return RemoveDevice(*m_ssdp, arguments);
    default:
        return AddDevice(*m_ssdp, arguments);
    }
}

std::string DebugCommands::HandleMdns(int cmdKey, const Arguments& arguments)
{
    switch (cmdKey)
    {
    case MDNS_LIST:
        return ListMdns(arguments);
    case MDNS_START:
        return StartMdns();
    case MDNS_STOP:
        return StopMdns();
    case MDNS_CLEARALL:
        return ClearMdns(arguments);
    case MDNS_REMOVEDEVICE:
        return RemoveDevice(*m_mdns, arguments);
    case MDNS_ADDDEVICE:
        return AddDevice(*m_mdns, arguments);
    case MDNS_ADDSERVICE:
        AddService(arguments);
        return {};
    default:
        RemoveService(arguments);
        return {};
    }
}

// ---- SSDP ---------------------------------------------------------------------------------------------------

std::string DebugCommands::ListSsdp() const
{
    const std::string testing = ProductListText(m_ssdp->products);
    if (!CanUseSsdp())
    {
        return "( SSDP not running - here is the Testing device list )\n" + testing;
    }
    Sonarix::ProductList found;
    m_with.ssdp->GetProductList(found);
    return "---  Remote SSDP Product list ----- \n" + ProductListText(found) + "\n ---  Testing device list ----- \n" +
           testing;
}

std::string DebugCommands::StartSsdp()
{
    if (!m_with.ssdp || m_ssdp->isRunning)
    {
        return "SSDP discovery is already running";
    }
    DPRINT(s_log, DPrint::LEVEL_INFO, "SSDP is started from the console");
    m_with.ssdp->Start(m_with.primaryInterface());
    m_ssdp->isRunning = true;
    return {};
}

std::string DebugCommands::StopSsdp()
{
    if (!CanUseSsdp())
    {
        return "SSDP discovery is already stopped\n( Here is the Testng device list )\n" +
               ProductListText(m_ssdp->products);
    }
    DPRINT(s_log, DPrint::LEVEL_INFO, "SSDP is stopped from the console");
    m_with.ssdp->Stop();
    Flush(*m_ssdp);
    m_ssdp->isRunning = false;
    return {};
}

/// As many made-up products as SSDP has found real ones are announced twice: that is what scripts have come to see.
std::string DebugCommands::ClearSsdp()
{
    if (CanUseSsdp())
    {
        Sonarix::ProductList found;
        m_with.ssdp->GetProductList(found);
        const int count = std::min(found.products_size(), m_ssdp->products.products_size());
        for (int at = 0; at < count; ++at)
        {
            AnnounceOffline(m_ssdp->products.products(at));
        }
    }
    Flush(*m_ssdp);
    return "Offline device list cleared";
}

// ---- mDNS ---------------------------------------------------------------------------------------------------

std::string DebugCommands::ListMdns(const Arguments& arguments) const
{
    const auto answers = std::make_shared<MdnsAnswers>();
    if (!CanUseMdns())
    {
        answers->text = "( MDNS not running! )\n";
    }
    else if (!arguments.empty())
    {
        AskMdns(arguments.front(), answers);
    }
    else
    {
        AskMdns(kRendererType, answers);
        AskMdns(kClockType, answers);
    }
    const ScopedMutex lock(answers->mutex);
    return answers->text + "\n ---  Testing devices list -----\n" + ProductListText(m_mdns->products);
}

/// Waits for the answer, which adds to `answers` whenever it comes.
void DebugCommands::AskMdns(const std::string& serviceType, const std::shared_ptr<MdnsAnswers>& answers) const
{
    const auto isThere = std::make_shared<ConditionSemaphore>(0);
    m_with.mdns->GetProductList(serviceType,
                                [answers, isThere, serviceType](const Sonarix::ProductList& list)
                                {
                                    {
                                        const ScopedMutex lock(answers->mutex);
                                        answers->text += "---  Remote devices list  for service name :" + serviceType +
                                                         "----- \n" + ProductListText(list);
                                    }
                                    isThere->Signal();
                                });
    isThere->Wait(kListWaitMs);
}

std::string DebugCommands::StartMdns()
{
    if (!m_with.mdns || m_mdns->isRunning)
    {
        return "MDNS discovery is already running";
    }
    DPRINT(s_log, DPrint::LEVEL_INFO, "mDNS is started from the console");
    m_with.mdns->Start();
    m_mdns->isRunning = true;
    return {};
}

std::string DebugCommands::StopMdns()
{
    if (!CanUseMdns())
    {
        return "MDNS discovery is already stopped\n( Here is the Testing device list )\n" +
               ProductListText(m_mdns->products);
    }
    DPRINT(s_log, DPrint::LEVEL_INFO, "mDNS is stopped from the console");
    m_with.mdns->Stop();
    Flush(*m_mdns);
    m_mdns->isRunning = false;
    return {};
}

std::string DebugCommands::ClearMdns(const Arguments& arguments)
{
    if (CanUseMdns())
    {
        const AsyncCallback<const Sonarix::ProductList> clear(
            [weak = weak_from_this()](const Sonarix::ProductList& list)
            {
                const std::shared_ptr<DebugCommands> self = weak.lock();
                for (int at = 0; self && at < list.products_size(); ++at)
                {
                    self->AnnounceOffline(list.products(at));
                }
            },
            m_with.task);
        m_with.mdns->GetProductList(arguments.empty() ? kRendererType : arguments.front(), clear);
    }
    Flush(*m_mdns);
    return "Offline device list cleared";
}

void DebugCommands::AddService(const Arguments& arguments)
{
    SonarixPb::Service service;
    service.mutable_id()->set_interface(-1); // any: unset it is the interface 0, which there is none of
    if (CanUseMdns() && Read(arguments, service))
    {
        m_with.mdns->AddService(service);
    }
}

void DebugCommands::RemoveService(const Arguments& arguments)
{
    SonarixPb::Service service;
    if (CanUseMdns() && Read(arguments, service))
    {
        m_with.mdns->RemoveService(service);
    }
}

// ---- both ---------------------------------------------------------------------------------------------------

std::string DebugCommands::AddDevice(TestingList& list, const Arguments& arguments)
{
    Sonarix::ProductInfo info;
    if (Read(arguments, info))
    {
        auto* const products = list.products.mutable_products();
        const auto known = std::find_if(products->begin(), products->end(),
                                        [&info](const Sonarix::Product& product)
                                        { return product.productinfo().guid() == info.guid(); });
        Sonarix::Product& product = known != products->end() ? *known : *products->Add();
        product.add_protocols(list.protocol);
        product.set_state(SXCommon::ONLINE);
        *product.mutable_productinfo() = std::move(info);
        Announce(product);
    }
    return ProductListText(list.products);
}

std::string DebugCommands::RemoveDevice(TestingList& list, const Arguments& arguments)
{
    auto* const products = list.products.mutable_products();
    for (const std::string& address : arguments)
    {
        const auto known = std::find_if(products->begin(), products->end(),
                                        [&address](const Sonarix::Product& product)
                                        { return product.productinfo().ipaddress() == address; });
        if (known != products->end())
        {
            AnnounceOffline(*known);
            products->erase(known);
        }
    }
    return ProductListText(list.products);
}

bool DebugCommands::CanUseSsdp() const
{
    return m_with.ssdp && m_ssdp->isRunning;
}

bool DebugCommands::CanUseMdns() const
{
    return m_with.mdns && m_mdns->isRunning;
}

void DebugCommands::AnnounceOffline(Sonarix::Product product)
{
    product.set_state(SXCommon::OFFLINE);
    Announce(product);
}

void DebugCommands::Announce(const Sonarix::Product& product)
{
    m_with.gateway->SendSonarixNotification(product);
    if (m_with.ipc)
    {
        m_with.ipc->SendSonarixNotification(ProductStateToDeviceState(product),
                                            std::make_shared<SonarixPb::DeviceInfo>(ProductToDeviceInfo(product)));
    }
}

void DebugCommands::Flush(TestingList& list)
{
    for (const Sonarix::Product& product : list.products.products())
    {
        AnnounceOffline(product);
    }
    list.products.Clear();
}

/// False where nothing is left of the arguments.
template <class Record>
bool DebugCommands::Read(const Arguments& arguments, Record& record) const
{
    std::vector<std::string> skipped;
    DebugArguments::Read(arguments, record, skipped);
    Skip(skipped);
    return skipped.size() < arguments.size();
}

void DebugCommands::CheckArguments(int cmdKey, const Arguments& arguments)
{
    const Takes takes = TakenBy(cmdKey);
    if (arguments.size() < takes.least)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING, '"' << m_command << "\" without an argument does nothing");
    }
    else if (arguments.size() > takes.most)
    {
        Skip({std::next(arguments.begin(), static_cast<std::ptrdiff_t>(takes.most)), arguments.end()});
    }
}

void DebugCommands::Skip(const std::vector<std::string>& arguments) const
{
    if (!arguments.empty())
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING,
               '"' << m_command << "\": " << arguments.size() << " argument(s) skipped, the first is \""
                   << arguments.front() << '"');
    }
}

} // namespace SonarixService
