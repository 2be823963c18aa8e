#pragma once

#include "runtime/Callback.h"

#include <memory>

namespace MDNS
{

class Browser;

/// Chooses the backend that browses. Safe from any thread.
namespace BrowserFactory
{

namespace detail
{

/// Makes backends in place of the factory.
class BrowserFactoryIF
{
public:
    virtual std::shared_ptr<Browser> Create(bool useBackend, bool forceNone, Callback<> connected,
                                            Callback<> restart) = 0;
    virtual ~BrowserFactoryIF() = default;
};

} // namespace detail

/// A new backend at every call: Avahi where `useBackend` and not `forceNone`, else one that does nothing.
/// `connected` fires when the backend becomes usable, and each time it becomes usable anew; `restart` when it has
/// failed and must be replaced. Both may come on any thread. Empty where the backend cannot start.
std::shared_ptr<Browser> Create(bool useBackend, bool forceNone, Callback<> connected, Callback<> restart);

/// Null in the product. The object is not owned.
void SetOverride(detail::BrowserFactoryIF* factory);

} // namespace BrowserFactory

} // namespace MDNS
