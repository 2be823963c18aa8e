#include "service/DebugCommands.h"

#include "interfaces/DiscoveryServiceIPCServerIF.h"
#include "interfaces/DiscoveryServicePorticoClientIF.h"
#include "interfaces/MdnsDiscoveryProtocolIF.h"
#include "interfaces/SsdpDiscoveryProtocolIF.h"
#include "ipc/ProductConversion.h"
#include "runtime/AsyncCallback.h"
#include "runtime/ConditionSemaphore.h"
#include "runtime/DPrint.h"
#include "runtime/Liveness.h"
#include "runtime/TaskCheck.h"
#include "runtime/ThreadMutex.h"
#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"
#include "service/DebugArguments.h"
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

std::string TypeOf(const DebugCommands::Arguments& arguments)
{
    return arguments.empty() ? kRendererType : arguments.front();
}

} // namespace

/// The state of the commands for one discovery protocol.
struct DebugCommands::Protocol
{
    SXCommon::DiscoveryProtocol protocol;
    const std::string name;
    const char* testingHeading;      ///< heading of the testing products in the response to a repeated stop
    std::function<void()> start;     ///< empty if the protocol object is null
    std::function<void()> stop;      ///< likewise
    bool isRunning = true;           ///< changed by the console only
    Sonarix::ProductList products{}; ///< the testing products

    bool IsUsable() const
    {
        return start && isRunning;
    }
};

/// The answers of mDNS to one command, in the order of their arrival. Shared with the callbacks, since an answer may
/// arrive after the command.
struct DebugCommands::MdnsAnswers
{
    CThreadMutex mutex;
    std::string text;
};

DebugCommands::DebugCommands(Context context)
    : m_context(std::move(context))
    , m_ssdp(new Protocol{SXCommon::SSDP, "SSDP", "( Here is the Testng device list )\n", {}, {}})
    , m_mdns(new Protocol{SXCommon::MDNS, "MDNS", "( Here is the Testing device list )\n", {}, {}})
{
    if (m_context.ssdp)
    {
        m_ssdp->start = [this] { m_context.ssdp->Start(m_context.primaryInterface()); };
        m_ssdp->stop = [this] { m_context.ssdp->Stop(); };
    }
    if (m_context.mdns)
    {
        m_mdns->start = [this] { m_context.mdns->Start(); };
        m_mdns->stop = [this] { m_context.mdns->Stop(); };
    }
}

DebugCommands::~DebugCommands() = default;

std::string DebugCommands::HandleCliCmd(int cmdKey, const Arguments& arguments)
{
    TASK_CHECK(m_context.task);
    const auto& table = Table();
    const auto command =
        std::find_if(table.begin(), table.end(), [cmdKey](const Command& row) { return row.key == cmdKey; });
    if (command == table.end())
    {
        return "Command not found";
    }
    m_command = &*command;
    CheckArguments(arguments);
    return m_command->handle(*this, arguments);
}

std::string DebugCommands::ListSsdp() const
{
    const std::string testing = ProductListText(m_ssdp->products);
    if (!m_ssdp->IsUsable())
    {
        return "( SSDP not running - here is the Testing device list )\n" + testing;
    }
    Sonarix::ProductList found;
    m_context.ssdp->GetProductList(found);
    return "---  Remote SSDP Product list ----- \n" + ProductListText(found) + "\n ---  Testing device list ----- \n" +
           testing;
}

/// Kept for existing scripts: the first min(found, testing) testing products are announced OFFLINE twice.
std::string DebugCommands::ClearSsdp()
{
    if (m_ssdp->IsUsable())
    {
        Sonarix::ProductList found;
        m_context.ssdp->GetProductList(found);
        const int count = std::min(found.products_size(), m_ssdp->products.products_size());
        for (int at = 0; at < count; ++at)
        {
            AnnounceOffline(m_ssdp->products.products(at));
        }
    }
    Flush(*m_ssdp);
    return "Offline device list cleared";
}

std::string DebugCommands::ListMdns(const Arguments& arguments) const
{
    const auto answers = std::make_shared<MdnsAnswers>();
    if (!m_mdns->IsUsable())
    {
        answers->text = "( MDNS not running! )\n";
    }
    else
    {
        QueryMdns(TypeOf(arguments), answers);
        if (arguments.empty())
        {
            QueryMdns(kClockType, answers);
        }
    }
    const ScopedMutex lock(answers->mutex);
    return answers->text + "\n ---  Testing devices list -----\n" + ProductListText(m_mdns->products);
}

/// Returns when the answer has been added to `answers`, or after kListWaitMs.
void DebugCommands::QueryMdns(const std::string& serviceType, const std::shared_ptr<MdnsAnswers>& answers) const
{
    const auto hasAnswer = std::make_shared<ConditionSemaphore>(0);
    m_context.mdns->GetProductList(serviceType,
                                   [answers, hasAnswer, serviceType](const Sonarix::ProductList& list)
                                   {
                                       {
                                           const ScopedMutex lock(answers->mutex);
                                           answers->text +=
                                               "---  Remote devices list  for service name :" + serviceType +
                                               "----- \n" + ProductListText(list);
                                       }
                                       hasAnswer->Signal();
                                   });
    hasAnswer->Wait(kListWaitMs);
}

std::string DebugCommands::ClearMdns(const Arguments& arguments)
{
    if (m_mdns->IsUsable())
    {
        const AsyncCallback<const Sonarix::ProductList> clear(
            Liveness::Weakly(shared_from_this(),
                             [](DebugCommands& self, const Sonarix::ProductList& list)
                             {
                                 TASK_CHECK(self.m_context.task);
                                 for (const Sonarix::Product& product : list.products())
                                 {
                                     self.AnnounceOffline(product);
                                 }
                             }),
            m_context.task);
        m_context.mdns->GetProductList(TypeOf(arguments), clear);
    }
    Flush(*m_mdns);
    return "Offline device list cleared";
}

std::string DebugCommands::AddService(const Arguments& arguments)
{
    std::vector<std::string> skipped;
    SonarixPb::Service service = DebugArguments::ServiceFromArguments(arguments, skipped);
    if (m_mdns->IsUsable() && HasValid(arguments, skipped))
    {
        service.mutable_id()->set_interface(-1); // any interface; the default, 0, is no interface
        m_context.mdns->AddService(service);
    }
    return {};
}

std::string DebugCommands::RemoveService(const Arguments& arguments)
{
    std::vector<std::string> skipped;
    const SonarixPb::Service service = DebugArguments::ServiceFromArguments(arguments, skipped);
    if (m_mdns->IsUsable() && HasValid(arguments, skipped))
    {
        m_context.mdns->RemoveService(service);
    }
    return {};
}

std::string DebugCommands::Start(Protocol& protocol)
{
    if (!protocol.start || protocol.isRunning)
    {
        return protocol.name + " discovery is already running";
    }
    DPRINT(s_log, DPrint::LEVEL_INFO, "the console starts " << protocol.name);
    protocol.start();
    protocol.isRunning = true;
    return {};
}

std::string DebugCommands::Stop(Protocol& protocol)
{
    if (!protocol.IsUsable())
    {
        return protocol.name + " discovery is already stopped\n" + protocol.testingHeading +
               ProductListText(protocol.products);
    }
    DPRINT(s_log, DPrint::LEVEL_INFO, "the console stops " << protocol.name);
    protocol.stop();
    Flush(protocol);
    protocol.isRunning = false;
    return {};
}

std::string DebugCommands::AddDevice(Protocol& protocol, const Arguments& arguments)
{
    std::vector<std::string> skipped;
    Sonarix::ProductInfo info = DebugArguments::ProductInfoFromArguments(arguments, skipped);
    if (HasValid(arguments, skipped))
    {
        auto* const products = protocol.products.mutable_products();
        const auto known = std::find_if(products->begin(), products->end(),
                                        [&info](const Sonarix::Product& product)
                                        { return product.productinfo().guid() == info.guid(); });
        Sonarix::Product& product = known != products->end() ? *known : *products->Add();
        product.add_protocols(protocol.protocol);
        product.set_state(SXCommon::ONLINE);
        *product.mutable_productinfo() = std::move(info);
        Announce(product);
    }
    return ProductListText(protocol.products);
}

std::string DebugCommands::RemoveDevice(Protocol& protocol, const Arguments& arguments)
{
    auto* const products = protocol.products.mutable_products();
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
    return ProductListText(protocol.products);
}

void DebugCommands::AnnounceOffline(Sonarix::Product product)
{
    product.set_state(SXCommon::OFFLINE);
    Announce(product);
}

void DebugCommands::Announce(const Sonarix::Product& product)
{
    m_context.gateway->SendSonarixNotification(product);
    if (m_context.ipc)
    {
        m_context.ipc->SendSonarixNotification(ProductStateToDeviceState(product),
                                               std::make_shared<SonarixPb::DeviceInfo>(ProductToDeviceInfo(product)));
    }
}

void DebugCommands::Flush(Protocol& protocol)
{
    for (const Sonarix::Product& product : protocol.products.products())
    {
        AnnounceOffline(product);
    }
    protocol.products.Clear();
}

void DebugCommands::CheckArguments(const Arguments& arguments) const
{
    if (arguments.size() < m_command->minArguments)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING, '"' << m_command->words << "\" without an argument does nothing");
    }
    else if (arguments.size() > m_command->maxArguments)
    {
        LogSkipped(
            {std::next(arguments.begin(), static_cast<std::ptrdiff_t>(m_command->maxArguments)), arguments.end()});
    }
}

/// Logs the skipped arguments. False if no argument is valid.
bool DebugCommands::HasValid(const Arguments& arguments, const std::vector<std::string>& skipped) const
{
    LogSkipped(skipped);
    return skipped.size() < arguments.size();
}

void DebugCommands::LogSkipped(const std::vector<std::string>& arguments) const
{
    if (!arguments.empty())
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING,
               '"' << m_command->words << "\": " << arguments.size() << " argument(s) skipped, the first is \""
                   << arguments.front() << '"');
    }
}

} // namespace SonarixService
