#include "AvahiCallbackAdapter.h"

#include "CleanupConnection.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using namespace MDNS;

namespace
{

using First = void (*)(void*, int);
using Middle = void (*)(const char*, void*, int);

/// A C library that remembers the one callback that it was given.
template <class Callback>
struct Library
{
    Callback m_callback = nullptr;
    void* m_userData = nullptr;

    auto Create(typename detail::AdapterOf<Callback>::Base::Function function)
    {
        return detail::AdapterOf<Callback>::Create(std::move(function),
                                                   [this](Callback callback, void* userData)
                                                   {
                                                       m_callback = callback;
                                                       m_userData = userData;
                                                       return this;
                                                   });
    }
};

TEST(AvahiCallbackAdapterTest, TheUserDataIsFoundWhereverItStandsAndNothingIsThrown)
{
    const LogCapture log;
    std::string heard;
    Library<First> first;
    const auto thrower = first.Create([](int) { throw std::runtime_error("broken"); });
    first.m_callback(first.m_userData, 1);
    EXPECT_TRUE(log.Contains("a callback has thrown: broken"));

    Library<Middle> middle;
    const auto [handle, connection] = middle.Create([&](const char* a, int b) { heard = a + std::to_string(b); });
    EXPECT_EQ(handle, &middle);
    middle.m_callback("middle ", middle.m_userData, 2);
    EXPECT_EQ(heard, "middle 2");
    connection.Disconnect();
    connection.Disconnect();
    EXPECT_FALSE(connection.IsConnected());
    middle.m_callback("late ", middle.m_userData, 3);
    EXPECT_EQ(heard, "middle 2");
}

TEST(AvahiCallbackAdapterTest, ACallbackMayEndItsOwnAdapter)
{
    Library<First> library;
    CallbackConnection connection;
    const auto token = std::make_shared<int>(7);
    int heard = 0;
    auto created = library.Create(
        [&connection, &heard, token](int)
        {
            connection.Disconnect();
            connection = {}; // the last handle
            heard += *token; // what the function holds outlives the call
        });
    connection = std::move(created.second);
    created.second = {};
    library.m_callback(library.m_userData, 1);
    EXPECT_EQ(heard, 7);
    EXPECT_EQ(token.use_count(), 1) << "and no longer than it";
}

TEST(CleanupConnectionTest, CleansUpOnceBeforeTheAdapterGoes)
{
    Library<First> library;
    int heard = 0;
    int cleanups = 0;
    auto created = library.Create([&heard](int a) { heard += a; });
    CallbackConnection connection = MakeCleanupConnection(
        [&]
        {
            ++cleanups;
            library.m_callback(library.m_userData, 1); // a last event while the object is being freed
        },
        created.second);
    connection.Disconnect();
    EXPECT_EQ(heard, 1);
    EXPECT_FALSE(connection.IsConnected() || created.second.IsConnected());
    connection.Disconnect();
    connection = {};
    EXPECT_EQ(cleanups, 1);

    created = library.Create([](int) {});
    MakeCleanupConnection([&cleanups] { ++cleanups; }, created.second); // the last handle goes at once
    EXPECT_EQ(cleanups, 2);
    EXPECT_FALSE(created.second.IsConnected());
}

} // namespace
