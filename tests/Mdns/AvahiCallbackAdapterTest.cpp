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
using Last = void (*)(int, const char*, double, void*);

/// A C library that remembers the one callback that it was given.
template <class Callback>
struct Library
{
    Callback m_callback = nullptr;
    void* m_userData = nullptr;

    auto Constructor()
    {
        return [this](Callback callback, void* userData)
        {
            m_callback = callback;
            m_userData = userData;
            return this;
        };
    }
};

TEST(AvahiCallbackAdapterTest, TheUserDataIsFoundWhereverItStands)
{
    static_assert(detail::ConnectionImplIndexer<void*, int>::value == 0);
    static_assert(detail::ConnectionImplIndexer<int, const char*, double, void*>::value == 3);
    std::string heard;

    Library<First> first;
    const auto [handle, connection1] =
        detail::AdapterOf<First>::Create([&](int a) { heard += "first " + std::to_string(a); }, first.Constructor());
    EXPECT_EQ(handle, &first);
    first.m_callback(first.m_userData, 1);
    EXPECT_EQ(heard, "first 1");

    Library<Middle> middle;
    const auto [handle2, connection2] = detail::AdapterOf<Middle>::Create(
        [&](const char* a, int b) { heard = a + std::to_string(b); }, middle.Constructor());
    EXPECT_EQ(handle2, &middle);
    middle.m_callback("middle ", middle.m_userData, 2);
    EXPECT_EQ(heard, "middle 2");

    Library<Last> last;
    const auto [handle3, connection3] = detail::AdapterOf<Last>::Create(
        [&](int a, const std::string& b, double) { heard = b + std::to_string(a); }, last.Constructor());
    EXPECT_EQ(handle3, &last);
    last.m_callback(3, "last ", 0.5, last.m_userData);
    EXPECT_EQ(heard, "last 3");

    EXPECT_TRUE(connection3.IsConnected());
    connection3.Disconnect();
    connection3.Disconnect();
    EXPECT_FALSE(connection3.IsConnected());
    last.m_callback(4, "late ", 0.5, last.m_userData);
    EXPECT_EQ(heard, "last 3");
}

TEST(AvahiCallbackAdapterTest, ACallbackMayEndItsOwnAdapter)
{
    Library<First> library;
    CallbackConnection connection;
    const auto token = std::make_shared<int>(7);
    int heard = 0;
    auto created = detail::AdapterOf<First>::Create(
        [&connection, &heard, token](int)
        {
            connection.Disconnect();
            connection = {}; // the last handle
            heard += *token; // what the function holds outlives the call
        },
        library.Constructor());
    connection = std::move(created.second);
    created.second = {};
    library.m_callback(library.m_userData, 1);
    EXPECT_EQ(heard, 7);
    EXPECT_EQ(token.use_count(), 1) << "and no longer than it";
}

TEST(AvahiCallbackAdapterTest, WhatACallbackThrowsDoesNotReachTheLibrary)
{
    const LogCapture log;
    Library<First> library;
    const auto created =
        detail::AdapterOf<First>::Create([](int) { throw std::runtime_error("broken"); }, library.Constructor());
    library.m_callback(library.m_userData, 1);
    EXPECT_TRUE(log.Contains("a callback has thrown: broken"));
}

TEST(CleanupConnectionTest, CleansUpOnceBeforeTheAdapterGoes)
{
    Library<First> library;
    int heard = 0;
    int cleanups = 0;
    auto created = detail::AdapterOf<First>::Create([&heard](int a) { heard += a; }, library.Constructor());
    CallbackConnection connection = MakeCleanupConnection(
        [&]
        {
            ++cleanups;
            library.m_callback(library.m_userData, 1); // a last event while the object is being freed
        },
        created.second);
    EXPECT_TRUE(connection.IsConnected());
    connection.Disconnect();
    EXPECT_EQ(heard, 1);
    EXPECT_FALSE(connection.IsConnected());
    EXPECT_FALSE(created.second.IsConnected());
    connection.Disconnect();
    connection = {};
    EXPECT_EQ(cleanups, 1);

    // Dropping the last handle cleans up as well.
    created = detail::AdapterOf<First>::Create([](int) {}, library.Constructor());
    connection = MakeCleanupConnection([&cleanups] { ++cleanups; }, created.second);
    connection = {};
    EXPECT_EQ(cleanups, 2);
    EXPECT_FALSE(created.second.IsConnected());
}

} // namespace
