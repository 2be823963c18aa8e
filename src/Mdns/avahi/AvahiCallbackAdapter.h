#pragma once

#include "runtime/CallbackConnection.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

/// Adapts a C callback with a `void*` user data parameter to a std::function. The templates find the position N of the
/// user data in the C signature. They create a static function with that signature, and an object whose address is the
/// user data. The object is a CallbackConnection; disconnecting it destroys the std::function.
///
///     auto [browser, connection] = detail::AdapterOf<AvahiServiceBrowserCallback>::Create(
///         function, [&](AvahiServiceBrowserCallback callback, void* data) {
///             return avahi_service_browser_new(client, ..., callback, data);
///         });
///
/// Task: not synchronised. Callbacks, Disconnect() and IsConnected() all happen under the lock of the poll, or after
/// its thread has ended. The owner frees the C object before it disconnects, so no callback uses a destroyed object.
namespace MDNS::detail
{

/// Logs the current exception at level 1. An exception must not pass through stack frames of the C library.
void LogThrownByCallback() noexcept;

/// Holds the parameters in front of the user data while the templates search for the user data.
template <class... Args>
struct PlaceHolder
{
};

/// Holds the std::function for a C callback of type `Callback`. `Args` are its parameters without the user data.
template <class Callback, class... Args>
class ConnectionImplBase : public CallbackConnectionIF,
                           public std::enable_shared_from_this<ConnectionImplBase<Callback, Args...>>
{
public:
    using Function = std::function<void(Args...)>;

    explicit ConnectionImplBase(Function function)
        : m_function(std::make_shared<Function>(std::move(function)))
    {
    }

    bool IsConnected() const override
    {
        return m_function && *m_function;
    }

    void Disconnect() override
    {
        const std::shared_ptr<Function> function = std::exchange(m_function, nullptr);
    }

    /// libavahi calls this function for each event. `userData` is the ConnectionImplBase.
    static void Dispatch(void* userData, Args... args) noexcept
    {
        try
        {
            // Keeps the object and the function until the call returns, even if the call disconnects it.
            const std::shared_ptr<ConnectionImplBase> self =
                static_cast<ConnectionImplBase*>(userData)->shared_from_this();
            const std::shared_ptr<Function> function = self->m_function;
            if (function && *function)
            {
                (*function)(args...);
            }
        }
        catch (...)
        {
            LogThrownByCallback();
        }
    }

private:
    std::shared_ptr<Function> m_function;
};

/// Provides the static function. Its parameters are N parameters, the user data and the other parameters.
template <class Base, std::size_t N, class Carried, class... Rest>
struct ConnectionImplRotatorWithCarry;

template <class Base, std::size_t N, class... Before, class First, class... Rest>
requires(N > 0) struct ConnectionImplRotatorWithCarry<Base, N, PlaceHolder<Before...>, First, Rest...>
    : ConnectionImplRotatorWithCarry<Base, N - 1, PlaceHolder<Before..., First>, Rest...>
{
};

template <class Base, class... Before, class... After>
struct ConnectionImplRotatorWithCarry<Base, 0, PlaceHolder<Before...>, After...>
{
    static void Function(Before... before, void* userData, After... after)
    {
        Base::Dispatch(userData, before..., after...);
    }
};

/// The adapter for a C callback of type `Callback` whose user data is at position N.
template <class Callback, class UserData, std::size_t N, class... Args>
class ConnectionImpl final : public ConnectionImplBase<Callback, Args...>
{
    static_assert(std::is_same_v<UserData, void*>);

public:
    using Base = ConnectionImplBase<Callback, Args...>;
    using ConnectionImplBase<Callback, Args...>::ConnectionImplBase;

    /// Creates the object and calls `construct(static function, user data)`. Returns the result of that call and the
    /// connection to the object.
    template <class Construct>
    static std::pair<std::invoke_result_t<Construct, Callback, void*>, CallbackConnection>
    Create(typename Base::Function function, Construct construct)
    {
        const auto object = std::make_shared<ConnectionImpl>(std::move(function));
        const Callback entry = &ConnectionImplRotatorWithCarry<Base, N, PlaceHolder<>, Args...>::Function;
        auto handle = construct(entry, static_cast<Base*>(object.get()));
        return {handle, CallbackConnection(object)};
    }
};

/// The position of the user data in the parameter list.
template <class First, class... Rest>
struct ConnectionImplIndexer
{
    static constexpr std::size_t value = 1 + ConnectionImplIndexer<Rest...>::value;
};

template <class... Rest>
struct ConnectionImplIndexer<void*, Rest...>
{
    static constexpr std::size_t value = 0;
};

/// Removes the user data from the parameter list.
template <class Callback, std::size_t N, class Carried, class... Rest>
struct ConnectionImplRotator;

template <class Callback, std::size_t N, class... Before, class First, class... Rest>
struct ConnectionImplRotator<Callback, N, PlaceHolder<Before...>, First, Rest...>
    : ConnectionImplRotator<Callback, N, PlaceHolder<Before..., First>, Rest...>
{
};

template <class Callback, std::size_t N, class... Before, class... After>
struct ConnectionImplRotator<Callback, N, PlaceHolder<Before...>, void*, After...>
{
    using Type = ConnectionImpl<Callback, void*, N, Before..., After...>;
};

template <class Callback>
struct AdapterOfSignature;

template <class... Args>
struct AdapterOfSignature<void (*)(Args...)>
{
    using Type = typename ConnectionImplRotator<void (*)(Args...), ConnectionImplIndexer<Args...>::value, PlaceHolder<>,
                                                Args...>::Type;
};

/// The adapter class for a C callback type.
template <class Callback>
using AdapterOf = typename AdapterOfSignature<Callback>::Type;

} // namespace MDNS::detail
