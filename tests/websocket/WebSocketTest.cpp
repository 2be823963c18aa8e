#include "websocket/WebSocket.h"

#include "tests/websocket/WebSocketEnds.h"
#include "tests/websocket/support/WebSocketRawClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

namespace
{

TEST(WebSocket, MessagesArriveInOrderBothWays)
{
    WebSocketEnds ends;
    const auto client = ends.Connect(ends.Here());
    ends.Send(client, "before it is open");
    const auto server = ends.Accepted();
    std::vector<std::string> sent;
    for (int i = 0; i < 1000; ++i)
    {
        sent.push_back(std::string(static_cast<std::size_t>(i * 7), 'x') + std::to_string(i));
        ends.Send(client, sent.back());
        ends.Send(server, sent.back());
    }
    EXPECT_TRUE(server->WaitForMessages(1001) && client->WaitForMessages(1000));
    EXPECT_EQ(client->messages.Get(), sent);
    sent.insert(sent.begin(), "before it is open");
    EXPECT_EQ(server->messages.Get(), sent);
    ends.task.Run([&] { EXPECT_EQ(client->connection->QueuedBytes(), 0U); });
}

TEST(WebSocket, RequestWithoutAKnownSubProtocolIsRefused)
{
    WebSocketEnds ends;
    const auto client = ends.Connect(ends.Here("other"));
    ASSERT_TRUE(client->WaitForClosed());
    EXPECT_THAT(client->closed.Get(), ElementsAre(HasSubstr("handshake")));
    const std::string get = "GET / HTTP/1.1\r\nHost: h\r\n";
    const std::string noProtocol = "Upgrade: websocket\r\nConnection: Upgrade\r\n"
                                   "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
    for (const std::string& request :
         {get + noProtocol, get + "Sec-WebSocket-Protocol: tarsier\r\n\r\n", std::string("nonsense\r\n\r\n"),
          std::string("\x16\x03\x01\x02", 4) + std::string(600, '\0'), get + std::string(100000, 'h')})
    {
        const WebSocketRawClient raw(ends.Port());
        raw.Send(request);
        EXPECT_THAT(raw.Receive(), Not(HasSubstr(" 101 "))) << request.substr(0, 40);
    }
    EXPECT_THAT(ends.accepted.Get(), SizeIs(0));
}

TEST(WebSocket, FrameThatIsTooLargeOrNotTextEndsTheConnection)
{
    WebSocketEnds ends({.maxMessageBytes = 100});
    const std::vector<std::pair<std::string, std::string>> cases = {
        {WebSocketRawClient::Frame(1, std::string(101, 'a')), "\x03\xF1"}, // 1009, too big
        {WebSocketRawClient::Frame(2, "binary"), "\x03\xEB"},              // 1003, cannot be accepted
        {WebSocketRawClient::Frame(1, "\xC3\x28"), "\x03\xEF"},            // 1007, no UTF-8
        {"\x81\x02hi", "\x03\xEA"},                                        // 1002, protocol error: not masked
        {WebSocketRawClient::Frame(5, "?"), "\x03\xEA"},
    };
    const std::string fine(100, 'a');
    for (std::size_t i = 0; i < cases.size(); ++i)
    {
        const WebSocketRawClient raw(ends.Port());
        raw.Open();
        raw.Send(WebSocketRawClient::Frame(1, fine) + cases[i].first);
        EXPECT_THAT(raw.Receive(), HasSubstr(cases[i].second)) << i;
        const auto server = ends.Accepted(i);
        ASSERT_TRUE(server->WaitForClosed());
        EXPECT_THAT(server->messages.Get(), ElementsAre(fine));
        EXPECT_THAT(server->closed.Get(), SizeIs(1));
    }
}

TEST(WebSocket, PeerThatDoesNotReadIsDropped)
{
    const std::size_t limit = 1U << 20U;
    WebSocketEnds ends({.maxQueuedBytes = limit});
    const WebSocketRawClient deaf(ends.Port(), 4096);
    deaf.Open();
    const auto server = ends.Accepted();
    std::size_t highest = 0;
    for (int i = 0; i < 200 && server->closed.Get().empty(); ++i)
    {
        ends.Send(server, std::string(100000, 'x'));
        ends.task.Run([&] { highest = std::max(highest, server->connection->QueuedBytes()); });
    }
    ASSERT_TRUE(server->WaitForClosed());
    EXPECT_THAT(server->closed.Get(), ElementsAre(HasSubstr("does not read")));
    EXPECT_LE(highest, limit);
}

TEST(WebSocket, HandshakeTimeoutFreesAConnectionOfTheLimit)
{
    WebSocket::ListenOptions options;
    options.maxConnections = 2;
    WebSocketEnds ends({.handshakeTimeout = 300ms}, options);
    std::optional<WebSocketRawClient> silent(ends.Port());
    std::optional<WebSocketRawClient> slow(ends.Port());
    slow->Send("GET / HTTP/1.1\r\n");
    const auto unheard = ends.Connect(ends.Here(), {.handshakeTimeout = 50ms});
    ASSERT_TRUE(unheard->WaitForClosed());
    EXPECT_THAT(unheard->closed.Get(), ElementsAre("no handshake in time"));
    const auto patient = ends.Connect(ends.Here());
    EXPECT_EQ(silent->Receive(), "");
    EXPECT_EQ(slow->Receive(), "");
    EXPECT_TRUE(patient->isOpen.WaitFor(true));
}

TEST(WebSocket, AbsentAndLostPeersAreReported)
{
    WebSocketEnds ends;
    WebSocket::Target nowhere = ends.Here();
    nowhere.port = WebSocketEnds().Port(); // closed by now
    for (const char* const host : {"127.0.0.1", "no-such-host.invalid"})
    {
        nowhere.host = host;
        WebSocketEnd absent;
        ends.task.Run(
            [&]
            {
                absent.connection = WebSocket::Connect(ends.task.Get(), nowhere, absent.Record(), {});
                EXPECT_THAT(absent.closed.Get(), SizeIs(0)) << "reported inside Connect()";
            });
        EXPECT_TRUE(absent.WaitForClosed());
        EXPECT_FALSE(absent.isOpen.Get());
        ends.task.Run([&] { absent.connection.reset(); });
    }
    std::optional<WebSocketRawClient> raw(ends.Port());
    raw->Open();
    const auto server = ends.Accepted();
    raw.reset();
    ASSERT_TRUE(server->WaitForClosed());
    ends.Send(server, "into the void");
}

TEST(WebSocket, SilentPeerIsClosedAndIdlePeerIsKept)
{
    WebSocketEnds ends({.idleTimeout = 100ms});
    const auto idle = ends.Connect(ends.Here());
    ends.Accepted();
    const WebSocketRawClient silent(ends.Port()); // does not answer pings
    silent.Open();
    EXPECT_TRUE(ends.Accepted(1)->WaitForClosed());
    EXPECT_FALSE(idle->WaitForClosed(500ms));
}

TEST(WebSocket, CloseInAnyHandlerEndsAllCalls)
{
    WebSocketEnds ends;
    for (std::size_t way = 0; way < 3; ++way) // in `opened`, in `message`, and by the destructor in `message`
    {
        std::shared_ptr<WebSocket::Connection> connection;
        int calls = 0; // on the task
        WebSocket::Connection::Handlers handlers;
        handlers.opened = [&, way]
        {
            ++calls;
            way == 0 ? connection->Close() : connection->Send("last words");
        };
        handlers.message = [&, way](const std::string&)
        {
            ++calls;
            way == 1 ? connection->Close() : connection.reset();
        };
        handlers.closed = [&](const std::string&) { calls += 100; };
        ends.task.Run([&] { connection = WebSocket::Connect(ends.task.Get(), ends.Here(), handlers, {}); });
        const auto server = ends.Accepted(way);
        if (way != 0)
        {
            ASSERT_TRUE(server->WaitForMessages(1));
            ends.Send(server, "one");
            ends.Send(server, "two");
        }
        ASSERT_TRUE(server->WaitForClosed()) << way;
        ends.task.Run([&] { connection.reset(); });
        EXPECT_EQ(calls, way == 0 ? 1 : 2);
    }
}

TEST(WebSocket, CloseSendsTheQueueFirst)
{
    WebSocketEnds ends;
    const auto client = ends.Connect(ends.Here());
    const auto server = ends.Accepted();
    const std::string big(3U << 20U, 'b');
    ends.task.Run(
        [&]
        {
            server->connection->Send(big);
            server->connection->Send("goodbye");
            server->connection->Close();
            server->connection->Close();
        });
    ASSERT_TRUE(client->WaitForClosed());
    EXPECT_THAT(client->messages.Get(), ElementsAre(big, "goodbye"));
    EXPECT_THAT(client->closed.Get(), ElementsAre("closed by the peer"));
    EXPECT_THAT(server->closed.Get(), SizeIs(0));
}

} // namespace
