#include "AvahiCallbackAdapter.h"

#include "CleanupConnection.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using namespace MDNS;

namespace
{

using Event = void (*)(int, void*, const char*);
using Adapter = detail::AdapterOf<Event>;

/// A C library that remembers the one callback that it was given.
struct Library
{
    Event m_callback = nullptr;
    void* m_userData = nullptr;

    CallbackConnection Create(Adapter::Base::Function function)
    {
        const auto remember = [this](Event callback, void* userData)
        {
            m_callback = callback;
            m_userData = userData;
            return this;
        };
        return Adapter::Create(std::move(function), remember).second;
    }
    void Tell() const
    {
        m_callback(7, m_userData, "seven");
    }
};

TEST(AvahiCallbackAdapterTest, ACallbackMayEndItsOwnAdapterAndThrow)
{
    const LogCapture log;
    Library library;
    CallbackConnection connection;
    const auto token = std::make_shared<std::string>("token ");
    std::string heard;
    connection = library.Create(
        [&connection, &heard, token](int number, const std::string& text)
        {
            connection.Disconnect();
            connection = {};                                // the last handle
            heard = *token + std::to_string(number) + text; // what the function holds outlives the call
            throw std::runtime_error("broken");
        });
    library.Tell();
    EXPECT_EQ(heard, "token 7seven");
    EXPECT_EQ(token.use_count(), 1) << "and no longer than it";
    EXPECT_TRUE(log.Contains("a callback has thrown: broken"));
}

TEST(CleanupConnectionTest, CleansUpOnceBeforeTheAdapterGoes)
{
    Library library;
    int heard = 0;
    int cleanups = 0;
    CallbackConnection adapter = library.Create([&heard](int, const char*) { ++heard; });
    CallbackConnection connection = MakeCleanupConnection(
        [&]
        {
            ++cleanups;
            library.Tell(); // a last event while the object is being freed
        },
        adapter);
    connection.Disconnect();
    EXPECT_FALSE(connection.IsConnected() || adapter.IsConnected());
    connection.Disconnect();
    library.Tell();
    EXPECT_EQ(heard, 1);
    connection = {};
    EXPECT_EQ(cleanups, 1);

    adapter = library.Create([](int, const char*) {});
    MakeCleanupConnection([&cleanups] { ++cleanups; }, adapter); // the last handle goes at once
    EXPECT_EQ(cleanups, 2);
    EXPECT_FALSE(adapter.IsConnected());
}

} // namespace
