#pragma once

#include "runtime/Callback.h"
#include "runtime/FactoryOverride.h"

#include <memory>

/// The two functions that create mDNS backends. Safe from any thread.
///
/// Each call creates a new backend: AvahiImpl if `useBackend` is set and `forceNone` is not, otherwise NoneBrowser or
/// NonePublisher. `connected` is called each time the backend becomes usable. `restart` is called when the backend has
/// failed and must be replaced. Both may be called on any thread. Returns null if the backend cannot start.
namespace MDNS
{

class Browser;
class Publisher;

namespace detail
{

/// For tests: if one is set as override, it creates the backends of one kind instead of the factory's Create().
template <class Backend>
class BackendFactoryIF
{
public:
    virtual std::shared_ptr<Backend> Create(bool useBackend, bool forceNone, Callback<> connected,
                                            Callback<> restart) = 0;
    virtual ~BackendFactoryIF() = default;
};

} // namespace detail

namespace BrowserFactory
{

namespace detail
{
using BrowserFactoryIF = MDNS::detail::BackendFactoryIF<Browser>;
}

inline FactoryOverride<detail::BrowserFactoryIF*> s_factoryOverride;

std::shared_ptr<Browser> Create(bool useBackend, bool forceNone, Callback<> connected, Callback<> restart);

} // namespace BrowserFactory

namespace PublisherFactory
{

namespace detail
{
using PublisherFactoryIF = MDNS::detail::BackendFactoryIF<Publisher>;
}

inline FactoryOverride<detail::PublisherFactoryIF*> s_factoryOverride;

std::shared_ptr<Publisher> Create(bool useBackend, bool forceNone, Callback<> connected, Callback<> restart);

} // namespace PublisherFactory

} // namespace MDNS
