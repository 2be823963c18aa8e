#pragma once

#include <memory>

class NotifyTargetTaskIF;

namespace SonarixService
{

class MdnsServiceIF;

/// Makes the mDNS logic. Safe from any thread.
namespace MdnsServiceFactory
{

namespace detail
{

/// Makes services in place of the factory.
class MdnsServiceFactoryIF
{
public:
    virtual std::shared_ptr<MdnsServiceIF> Create(NotifyTargetTaskIF* task, bool useBackend, bool forceNone) = 0;
    virtual ~MdnsServiceFactoryIF() = default;
};

} // namespace detail

/// A service on `task`, started. The flags choose its backends: see MDNS::BrowserFactory.
std::shared_ptr<MdnsServiceIF> Create(NotifyTargetTaskIF* task, bool useBackend, bool forceNone);

/// Null in the product. The object is not owned.
void SetOverride(detail::MdnsServiceFactoryIF* factory);

} // namespace MdnsServiceFactory

} // namespace SonarixService
