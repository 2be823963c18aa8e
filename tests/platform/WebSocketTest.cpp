#include "WebSocket.h"

#include "LogCapture.h"
#include "WebSocketEnds.h"
#include "WebSocketRawClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include <malloc.h>
#include <sys/resource.h>

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

namespace
{

WebSocket::ListenOptions WithLimits(const WebSocket::Limits& limits)
{
    WebSocket::ListenOptions options;
    options.limits = limits;
    return options;
}

TEST(WebSocket, CarriesMessagesInOrderBothWays)
{
    WebSocketEnds ends;
    const auto client = ends.Connect(ends.Here());
    ends.Send(client, "before it is open");
    const auto server = ends.WaitForAccepted();
    ASSERT_TRUE(server);
    std::vector<std::string> sent = {"before it is open"};
    for (int i = 0; i < 1000; ++i)
    {
        sent.push_back(std::string(static_cast<std::size_t>(i * 7), 'x') + std::to_string(i));
        ends.Send(client, sent.back());
        ends.Send(server, sent.back());
    }
    ASSERT_TRUE(server->WaitForMessages(1001));
    ASSERT_TRUE(client->WaitForMessages(1000));
    EXPECT_EQ(server->messages.Get(), sent);
    sent.erase(sent.begin());
    EXPECT_EQ(client->messages.Get(), sent);

    ends.Task().Run(
        [&]
        {
            EXPECT_TRUE(client->connection->IsOpen());
            EXPECT_EQ(client->connection->QueuedBytes(), 0U);
            EXPECT_EQ(client->connection->SubProtocol(), "tarsier");
            EXPECT_EQ(server->connection->SubProtocol(), "tarsier");
            EXPECT_EQ(server->connection->PeerAddress(), "127.0.0.1");
            EXPECT_EQ(server->connection->PeerName(), "");
        });
}

TEST(WebSocket, RefusesWhatItWasNotToldToSpeak)
{
    WebSocketEnds ends;
    const auto client = ends.Connect(ends.Here("other"));
    ASSERT_TRUE(client->WaitForClosed());
    EXPECT_THAT(client->closed.Get(), ElementsAre(HasSubstr("handshake")));
    EXPECT_FALSE(client->isOpen.Get());

    const std::string noProtocol = "GET / HTTP/1.1\r\nHost: h\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                                   "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
    for (const std::string& request :
         {noProtocol, std::string("GET / HTTP/1.1\r\nHost: h\r\nSec-WebSocket-Protocol: tarsier\r\n\r\n"),
          std::string("nonsense\r\n\r\n"), std::string("\x16\x03\x01\x02", 4) + std::string(600, '\0'),
          "GET / HTTP/1.1\r\n" + std::string(100000, 'h')})
    {
        WebSocketRawClient raw;
        ASSERT_TRUE(raw.Connect(ends.Port()));
        raw.Send(request);
        EXPECT_THAT(raw.ReceiveAll(), testing::Not(HasSubstr(" 101 "))) << request.substr(0, 40);
    }
    EXPECT_THAT(ends.accepted.Get(), SizeIs(0));
}

TEST(WebSocket, EndsAtAMessageOverTheLimit)
{
    WebSocket::Limits limits;
    limits.maxMessageBytes = 10000;
    WebSocketEnds ends(WithLimits(limits));
    const auto client = ends.Connect(ends.Here());
    ends.Send(client, std::string(10000, 'a'));
    const auto server = ends.WaitForAccepted();
    ASSERT_TRUE(server && server->WaitForMessages(1));
    EXPECT_THAT(client->closed.Get(), SizeIs(0));
    ends.Send(client, std::string(10001, 'a'));
    EXPECT_TRUE(client->WaitForClosed());
    EXPECT_TRUE(server->WaitForClosed());
    EXPECT_THAT(server->messages.Get(), SizeIs(1));
}

TEST(WebSocket, EndsAtFramesThatAreNoText)
{
    WebSocketEnds ends;
    const std::string unmasked = "\x81\x02hi";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {WebSocketRawClient::Frame(2, "binary"), "\x03\xEB"},   // 1003, cannot be accepted
        {WebSocketRawClient::Frame(1, "\xC3\x28"), "\x03\xEF"}, // 1007, no UTF-8
        {unmasked, "\x03\xEA"},                                 // 1002, protocol error
        {WebSocketRawClient::Frame(5, "?"), "\x03\xEA"},
    };
    for (std::size_t i = 0; i < cases.size(); ++i)
    {
        WebSocketRawClient raw;
        ASSERT_TRUE(raw.Open(ends.Port()));
        raw.Send(WebSocketRawClient::Frame(1, "fine"));
        raw.Send(cases[i].first);
        EXPECT_THAT(raw.ReceiveAll(), HasSubstr(cases[i].second)) << i;
        const auto server = ends.WaitForAccepted(i);
        ASSERT_TRUE(server && server->WaitForClosed());
        EXPECT_THAT(server->messages.Get(), ElementsAre("fine"));
        EXPECT_THAT(server->closed.Get(), SizeIs(1));
    }
}

TEST(WebSocket, DropsAPeerThatDoesNotRead)
{
    WebSocket::Limits limits;
    limits.maxQueuedBytes = 1U << 20U;
    WebSocketEnds ends(WithLimits(limits));
    WebSocketRawClient deaf(4096);
    ASSERT_TRUE(deaf.Open(ends.Port()));
    const auto server = ends.WaitForAccepted();
    ASSERT_TRUE(server);
    const std::string part(100000, 'x');
    std::size_t highest = 0;
    for (int i = 0; i < 200 && server->closed.Get().empty(); ++i)
    {
        ends.Send(server, part);
        ends.Task().Run([&] { highest = std::max(highest, server->connection->QueuedBytes()); });
    }
    ASSERT_TRUE(server->WaitForClosed());
    EXPECT_THAT(server->closed.Get(), ElementsAre(HasSubstr("does not read")));
    EXPECT_LE(highest, limits.maxQueuedBytes);

    const auto other = ends.Connect(ends.Here());
    ends.Send(other, "nobody else notices");
    const auto second = ends.WaitForAccepted(1);
    EXPECT_TRUE(second && second->WaitForMessages(1));
}

TEST(WebSocket, LimitsTheTimeOfAHandshake)
{
    WebSocket::Limits limits;
    limits.handshakeTimeout = 100ms;
    WebSocketEnds ends(WithLimits(limits));
    WebSocketRawClient silent;
    WebSocketRawClient slow;
    ASSERT_TRUE(silent.Connect(ends.Port()) && slow.Connect(ends.Port()));
    slow.Send("GET / HTTP/1.1\r\n");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(silent.ReceiveAll(), "");
    EXPECT_EQ(slow.ReceiveAll(), "");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);

    // A server that takes the connection and says nothing.
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(::listen(listener, 4), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
    WebSocket::Target target = ends.Here();
    target.port = ntohs(address.sin_port);
    const auto client = ends.Connect(target, limits);
    ASSERT_TRUE(client->WaitForClosed());
    EXPECT_THAT(client->closed.Get(), ElementsAre("no handshake in time"));
    ::close(listener);
}

TEST(WebSocket, TellsOfAPeerThatIsNotThereAndOfOneThatGoes)
{
    WebSocketEnds ends;
    WebSocket::Target nowhere = ends.Here();
    WebSocketEnds gone;
    nowhere.port = gone.Port();
    gone.CloseListener();
    bool isToldInside = false;
    WebSocketEnd absent;
    ends.Task().Run(
        [&]
        {
            absent.connection = WebSocket::Connect(ends.Task().Get(), nowhere, absent.Record(), {});
            isToldInside = !absent.closed.Get().empty();
        });
    ASSERT_TRUE(absent.WaitForClosed());
    EXPECT_FALSE(isToldInside);
    EXPECT_FALSE(absent.isOpen.Get());

    nowhere.host = "no-such-host.invalid";
    const auto unknown = ends.Connect(nowhere);
    EXPECT_TRUE(unknown->WaitForClosed());

    WebSocketRawClient raw;
    ASSERT_TRUE(raw.Open(ends.Port()));
    const auto server = ends.WaitForAccepted();
    ASSERT_TRUE(server);
    raw.Close();
    ASSERT_TRUE(server->WaitForClosed());
    ends.Task().Run(
        [&]
        {
            EXPECT_FALSE(server->connection->IsOpen());
            EXPECT_EQ(server->connection->PeerAddress(), "");
            server->connection->Send("into the void");
            absent.connection.reset();
        });
}

TEST(WebSocket, NoticesASilentPeerAndKeepsAnIdleOne)
{
    WebSocket::Limits limits;
    limits.idleTimeout = 100ms;
    WebSocketEnds ends(WithLimits(limits));
    const auto idle = ends.Connect(ends.Here());
    ASSERT_TRUE(ends.WaitForAccepted());
    WebSocketRawClient silent; // answers no ping
    ASSERT_TRUE(silent.Open(ends.Port()));
    const auto dead = ends.WaitForAccepted(1);
    ASSERT_TRUE(dead && dead->WaitForClosed());
    EXPECT_FALSE(idle->closed.WaitUntil([](const auto& all) { return !all.empty(); }, 500ms));
}

TEST(WebSocket, CallsNobodyAfterCloseWhereverItIsClosed)
{
    WebSocketEnds ends;
    // In `opened`, in `message`, and by the destructor in `message`.
    for (int way = 0; way < 3; ++way)
    {
        const std::size_t index = ends.accepted.Get().size();
        WebSocketEnd end;
        Watched<int> calls{0};
        ends.Task().Run(
            [&]
            {
                WebSocket::Connection::Handlers handlers;
                handlers.opened = [&, way]
                {
                    calls.Change([](int& count) { ++count; });
                    way == 0 ? end.connection->Close() : end.connection->Send("last words");
                };
                handlers.message = [&, way](const std::string&)
                {
                    calls.Change([](int& count) { ++count; });
                    way == 1 ? end.connection->Close() : end.connection.reset();
                };
                handlers.closed = [&](const std::string&) { calls.Change([](int& count) { count += 100; }); };
                end.connection = WebSocket::Connect(ends.Task().Get(), ends.Here(), handlers, {});
            });
        const auto server = ends.WaitForAccepted(index);
        ASSERT_TRUE(server);
        if (way != 0)
        {
            ASSERT_TRUE(server->WaitForMessages(1));
            ends.Task().Run(
                [&]
                {
                    server->connection->Send("one");
                    server->connection->Send("two");
                });
        }
        ASSERT_TRUE(server->WaitForClosed()) << way;
        ends.Task().Drain();
        EXPECT_EQ(calls.Get(), way == 0 ? 1 : 2);
        ends.Task().Run([&] { end.connection.reset(); });
    }
}

TEST(WebSocket, BringsOutWhatWasSentBeforeClose)
{
    WebSocketEnds ends;
    const auto client = ends.Connect(ends.Here());
    const auto server = ends.WaitForAccepted();
    ASSERT_TRUE(server);
    const std::string big(3U << 20U, 'b');
    ends.Task().Run(
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

TEST(WebSocket, GoesOnAfterAnExceptionInAHandler)
{
    const LogCapture log;
    WebSocketEnds ends;
    const auto client = ends.Connect(ends.Here());
    const auto server = ends.WaitForAccepted();
    ASSERT_TRUE(server);
    ends.Task().Run(
        [&]
        {
            WebSocket::Connection::Handlers handlers = server->Record();
            const auto record = handlers.message;
            handlers.message = [record](const std::string& text)
            {
                record(text);
                throw std::runtime_error("handler failed");
            };
            server->connection->SetHandlers(handlers);
        });
    ends.Send(client, "one");
    ends.Send(client, "two");
    EXPECT_TRUE(server->WaitForMessages(2));
    EXPECT_TRUE(log.WaitFor("handler failed"));
}

TEST(WebSocket, AcceptsAgainWhenAPlaceIsFree)
{
    WebSocket::ListenOptions options;
    options.maxConnections = 2;
    WebSocketEnds ends(options);
    WebSocketRawClient first;
    WebSocketRawClient second;
    ASSERT_TRUE(first.Open(ends.Port()) && second.Open(ends.Port()));
    const auto third = ends.Connect(ends.Here());
    EXPECT_FALSE(third->isOpen.WaitFor(true, 200ms));
    first.Close();
    EXPECT_TRUE(third->isOpen.WaitFor(true));
    EXPECT_TRUE(ends.WaitForAccepted(2));
}

TEST(WebSocket, WaitsForADescriptorWithoutLosingTheClient)
{
    const LogCapture log;
    WebSocketEnds ends;
    WebSocketRawClient client;
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const int firstFree = ::dup(0);
    ::close(firstFree);
    rlimit none = before;
    none.rlim_cur = static_cast<rlim_t>(firstFree);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);

    ASSERT_TRUE(client.Connect(ends.Port())); // by the kernel alone
    client.Send(WebSocketRawClient::Upgrade());
    EXPECT_TRUE(log.WaitFor("pauses"));
    rusage start{};
    getrusage(RUSAGE_SELF, &start);
    EXPECT_FALSE(ends.accepted.WaitUntil([](const auto& all) { return !all.empty(); }, 400ms));
    rusage end{};
    getrusage(RUSAGE_SELF, &end);
    EXPECT_LT((end.ru_utime.tv_sec - start.ru_utime.tv_sec) * 1000000 + end.ru_utime.tv_usec - start.ru_utime.tv_usec,
              100000)
        << "it spins";

    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(ends.WaitForAccepted());
    EXPECT_THAT(client.Receive(), HasSubstr(" 101 "));
    EXPECT_EQ(log.Count(DPrint::LEVEL_WARNING), 1U) << log.Text();
}

TEST(WebSocket, SaysWhyItCannotListen)
{
    WebSocketEnds ends;
    ends.Task().Run(
        [&]
        {
            WebSocket::ListenOptions options;
            std::string error;
            options.port = ends.Port();
            EXPECT_FALSE(WebSocket::Listen(ends.Task().Get(), options, nullptr, error));
            EXPECT_THAT(error, HasSubstr("Address already in use"));
            options.address = "no address";
            EXPECT_FALSE(WebSocket::Listen(ends.Task().Get(), options, nullptr, error));
            EXPECT_THAT(error, HasSubstr("no address"));
        });
}

TEST(WebSocket, CostsLittleAtRest)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's memory tells nothing";
#endif
    WebSocketEnds ends;
    const std::size_t pairs = 100;
    ends.Connect(ends.Here());
    ASSERT_TRUE(ends.WaitForAccepted());
    ends.Task().Drain();
    const std::size_t before = mallinfo2().uordblks;
    std::vector<std::shared_ptr<WebSocketEnd>> clients;
    for (std::size_t i = 0; i < pairs; ++i)
    {
        clients.push_back(ends.Connect(ends.Here()));
        ends.Send(clients.back(), std::string(200000, 'x'));
        const auto server = ends.WaitForAccepted(i + 1);
        ASSERT_TRUE(server && server->WaitForMessages(1));
        ends.Send(server, std::string(200000, 'x'));
        ASSERT_TRUE(clients.back()->WaitForMessages(1));
        for (const auto& end : {server, clients.back()}) // the test's own copies don't count
        {
            end->messages.Set({});
        }
    }
    ends.Task().Drain();
    const std::size_t each = (mallinfo2().uordblks - before) / (2 * pairs);
    EXPECT_LT(each, 16U << 10U);
}

} // namespace
