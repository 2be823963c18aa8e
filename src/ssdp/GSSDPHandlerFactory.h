#pragma once

#include <memory>
#include <string>

namespace SonarixService
{

class GSSDPHandlerIF;

/// Makes the SSDP adapter. Safe from any thread.
namespace GSSDPHandlerFactory
{

namespace detail
{

/// Makes adapters in place of the factory.
class GSSDPHandlerFactoryIF
{
public:
    virtual std::shared_ptr<GSSDPHandlerIF> Create(const std::string& iface) = 0;
    virtual ~GSSDPHandlerFactoryIF() = default;
};

} // namespace detail

/// An adapter on the interface `iface` (empty: the library chooses). It is ready on return, or has failed.
std::shared_ptr<GSSDPHandlerIF> Create(const std::string& iface);

/// Null in the product. The object is not owned.
void SetOverride(detail::GSSDPHandlerFactoryIF* factory);

} // namespace GSSDPHandlerFactory

} // namespace SonarixService
