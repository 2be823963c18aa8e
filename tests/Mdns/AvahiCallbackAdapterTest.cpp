#include "AvahiCallbackAdapter.h"

#include "LogCapture.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using namespace MDNS;

namespace
{

using Event = void (*)(int, void*, const char*);
using Adapter = detail::AdapterOf<Event>;

TEST(AvahiCallbackAdapterTest, ACallbackMayEndItsOwnAdapterAndThrow)
{
    const LogCapture log;
    CallbackConnection connection;
    const auto token = std::make_shared<std::string>("token ");
    std::string heard;
    const auto function = [&connection, &heard, token](int number, const std::string& text)
    {
        connection.Disconnect();
        connection = {};                                // the last handle
        heard = *token + std::to_string(number) + text; // what the function holds outlives the call
        throw std::runtime_error("broken");
    };
    Event callback = nullptr;
    void* userData = nullptr;
    connection = Adapter::Create(function,
                                 [&](Event event, void* data)
                                 {
                                     callback = event;
                                     userData = data;
                                     return this;
                                 })
                     .second;
    callback(7, userData, "seven");
    EXPECT_EQ(heard, "token 7seven");
    EXPECT_EQ(token.use_count(), 2) << "and no longer than it";
    EXPECT_TRUE(log.Contains("a callback has thrown: broken"));
}

} // namespace
