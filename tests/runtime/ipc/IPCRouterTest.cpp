#include "tests/ipc/support/RouterService.h"
#include "tests/ipc/support/SocketClient.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace
{

SonarixPb::ServiceId Id(const std::string& name)
{
    SonarixPb::ServiceId id;
    id.set_name(name);
    return id;
}

/// Requires that the client is served, and that all its earlier requests have been handled.
void ExpectServed(SocketClient& client, const std::string& name = "ping")
{
    ASSERT_TRUE(client.Request(1, 77, Id(name)));
    EXPECT_EQ(client.ReadAs<SonarixPb::ServiceId>("RESPONSE 1 77").name(), name);
}

} // namespace

TEST(IPCRouterTest, RequestsAreAnsweredRejectedOrIgnored)
{
    const LogCapture log;
    RouterService service;
    SocketClient client(service.path);
    ExpectServed(client, std::string(65536, 'n'));

    // The first request has another payload type, the second one bytes that do not parse.
    IPCMessageEnvelope request;
    request->set_id(1);
    request->set_tid(5);
    request->set_payload_type("Service");
    for (int round = 0; round < 2; ++round)
    {
        ASSERT_TRUE(client.Write(SocketClient::Frame(request)));
        EXPECT_EQ(SocketClient::HeadOf(client.Read()), "REJECT 1 5");
        request->set_payload_type("ServiceId");
        request->set_payload("\x22");
    }

    // A payload without a type name is read as the expected type.
    IPCMessageEnvelope nameless;
    nameless->set_id(1);
    nameless->set_tid(6);
    nameless->set_payload(Id("x").SerializeAsString());
    ASSERT_TRUE(client.Write(SocketClient::Frame(nameless)));
    EXPECT_EQ(client.ReadAs<SonarixPb::ServiceId>().name(), "x");

    // Id 7 has no handler, and kinds other than requests are ignored.
    ASSERT_TRUE(client.Request(7, 1, Id("x")));
    for (const auto kind :
         {IPCMessageEnvelopeBase::RESPONSE, IPCMessageEnvelopeBase::NOTIFICATION, IPCMessageEnvelopeBase::REJECT})
    {
        nameless->set_kind(kind);
        ASSERT_TRUE(client.Write(SocketClient::Frame(nameless)));
    }
    ASSERT_TRUE(client.Write(std::string(4, '\0'))); // an envelope without fields
    ExpectServed(client);
    EXPECT_EQ(log.Count(DPrint::LEVEL_WARNING), 2u) << "one line per kind of fault:\n" << log.Text();
    EXPECT_EQ(log.Lines().front().m_text.find(service.path + ": pid " + std::to_string(getpid()) + " ("), 0u)
        << log.Text();
}

TEST(IPCRouterTest, MalformedStreamEndsOnlyItsConnectionWithOneLine)
{
    const LogCapture log;
    RouterService service;
    SocketClient other(service.path);
    const std::vector<std::string> streams{{"\xff\xff\xff\xff\0 and so on", 15},
                                           {"\x00\x40\x00\x01", 4},
                                           {"\0\0\0\1x", 5},
                                           {"\0\0\0\2\x32\x7f", 6},
                                           {"\0\0\0\1\x18", 5},
                                           {"\0\0\0\1\0", 5},
                                           {"\0\0\0\6\x12\xff\xff\xff\xff\x0f", 10}};
    for (const std::string& stream : streams)
    {
        SocketClient client(service.path);
        ExpectServed(client);
        client.Write(stream);
        EXPECT_TRUE(client.AwaitEnd());
        ExpectServed(other);
    }
    EXPECT_EQ(log.Count(DPrint::LEVEL_WARNING), streams.size()) << log.Text();
    service.AwaitClients(1);

    // A frame cut off by the client's disconnect is no fault. Complete frames before it are handled.
    const std::string frame = SocketClient::RequestFrame(2, 1, Id("n"));
    for (std::size_t cut = 0; cut < frame.size(); ++cut)
    {
        const SocketClient client(service.path);
        client.Write(frame + frame.substr(0, cut));
    }
    EXPECT_TRUE(service.unanswered.WaitFor(static_cast<int>(frame.size())));
    service.AwaitClients(1);
    ExpectServed(other);
    EXPECT_EQ(log.Count(DPrint::LEVEL_WARNING), streams.size()) << log.Text();
}

TEST(IPCRouterTest, LargestFrameIsDeliveredAndALargerOneIsNotSent)
{
    const LogCapture log;
    RouterService service;
    SocketClient client(service.path);
    const std::string name(IPCFraming::kMaxFrameBytes - SocketClient::RequestFrame(1, 8, Id("")).size() - 16, 'x');
    std::jthread writer([&]
                        { client.Request(1, 8, Id(name)); }); // the request and its response exceed the socket buffers
    EXPECT_EQ(client.ReadAs<SonarixPb::ServiceId>().name().size(), name.size());
    writer.join();

    service.NotifyAll(std::string(IPCFraming::kMaxFrameBytes, 'x'));
    EXPECT_TRUE(log.WaitFor("ServiceId of 41943")) << log.Text();
    ExpectServed(client);
}

TEST(IPCRouterTest, ClientThatNeverReadsIsDisconnectedAlone)
{
    const LogCapture log;
    RouterService service;
    SocketClient silent(service.path);
    SocketClient reader(service.path);
    service.AwaitClients(2);
    constexpr int kCount = 10'000;
    const std::string name(1000, 'n');
    int received = 0;
    std::thread reading(
        [&]
        {
            while (received < kCount && reader.Read())
            {
                ++received;
            }
        });
    for (int count = 0; count < kCount; ++count)
    {
        service.NotifyAll(name);
    }
    reading.join();
    EXPECT_EQ(received, kCount);
    EXPECT_TRUE(log.WaitFor("bytes are queued and not read")) << log.Text();
    EXPECT_EQ(log.Count(DPrint::LEVEL_WARNING), 1u) << log.Text();
    service.AwaitClients(1);
    EXPECT_TRUE(silent.AwaitEnd());
    ExpectServed(reader);
}

TEST(IPCRouterTest, FramesFromManyThreadsAreNotInterleaved)
{
    const LogCapture log;
    RouterService service;
    SocketClient client(service.path);
    service.AwaitClients(1);
    constexpr int kThreads = 4;
    constexpr int kEach = 500;
    std::vector<std::jthread> threads;
    for (int number = 0; number < kThreads; ++number)
    {
        threads.emplace_back(
            [&service, number]
            {
                for (int count = 0; count < kEach; ++count)
                {
                    service.NotifyAll(
                        std::string(static_cast<std::size_t>(10 * count), static_cast<char>('a' + number)));
                }
            });
    }
    std::vector<std::size_t> next(kThreads);
    for (int count = 0; count < kThreads * kEach; ++count)
    {
        const auto id = client.ReadAs<SonarixPb::ServiceId>();
        if (!id.name().empty())
        {
            EXPECT_EQ(id.name().size(), next[static_cast<std::size_t>(id.name()[0] - 'a')] += 10)
                << "order within each thread";
            EXPECT_EQ(id.name().find_first_not_of(id.name()[0]), std::string::npos);
        }
    }
}

/// A client may send requests and disconnect at once. A notification that fails meanwhile must not discard them.
TEST(IPCRouterTest, RequestsOfADisconnectedClientAreHandled)
{
    const LogCapture log;
    const RealTask task;
    auto pair = SocketClient::Pair();
    const auto router = IPCMessageRouterFactory::CreateRouter("Router", task.Get(), nullptr);
    Watched<int> calls;
    Watched<int> disconnects;
    const auto increment = [](int& count) { ++count; };
    constexpr int kRequests = 10; // more bytes than one read returns
    task.Run(
        [&]
        {
            router->AttachHandler(1, [&](const IPCMessageEnvelope&) { calls.Change(increment); });
            router->Start(pair.first, [&] { disconnects.Change(increment); });
            for (int count = 0; count < kRequests; ++count)
            {
                pair.second.Request(1, 1, Id(std::string(5000, 'n')));
            }
            pair.second.Close();
            router->SendNotification(1, IPCMessageEnvelope());
        });
    EXPECT_TRUE(disconnects.WaitFor(1));
    EXPECT_EQ(calls.Get(), kRequests);
    EXPECT_EQ(log.Text(), "");
}

namespace
{

/// A router whose first request stops and destroys it.
struct StoppingRouter
{
    void Start(const std::shared_ptr<Network::ConnectorSocket>& socket)
    {
        task.Run(
            [&]
            {
                router = IPCMessageRouterFactory::CreateRouter("Router", task.Get(), socket);
                router->AttachHandler(1,
                                      [this](const IPCMessageEnvelope&)
                                      {
                                          ++calls;
                                          router->Stop();
                                          router.reset();
                                      });
                router->Start(nullptr, [this] { ++disconnects; });
            });
    }

    const RealTask task;
    int calls = 0;
    int disconnects = 0;
    std::shared_ptr<IPCMessageRouterIF> router;
};

} // namespace

TEST(IPCRouterTest, StoppedRouterCallsNeitherHandlerNorDisconnect)
{
    StoppingRouter stopping;
    auto [socket, client] = SocketClient::Pair();
    stopping.Start(socket);
    const std::string frame = SocketClient::RequestFrame(1, 1, Id("x"));
    client.Write(frame + frame);
    EXPECT_TRUE(client.AwaitEnd());
    stopping.task.Drain();
    EXPECT_EQ(stopping.calls, 1) << "stopped and destroyed by the handler of the first request";

    auto [second, secondClient] = SocketClient::Pair();
    stopping.Start(second);
    stopping.router.reset(); // on another thread
    EXPECT_TRUE(secondClient.AwaitEnd());
    stopping.task.Drain();

    auto [third, thirdClient] = SocketClient::Pair();
    stopping.Start(third);
    stopping.task.StopAndJoin(); // the task ends before the router
    stopping.router.reset();
    EXPECT_TRUE(thirdClient.AwaitEnd());
    EXPECT_EQ(stopping.calls, 1);
    EXPECT_EQ(stopping.disconnects, 0);
}

TEST(IPCRouterTest, UnusableSocketIsADisconnect)
{
    const LogCapture log;
    StoppingRouter router;
    auto [socket, client] = SocketClient::Pair();
    ::close(socket->Release());
    router.Start(socket);
    EXPECT_EQ(router.disconnects, 1) << "a released socket";
    router.router->SendNotification(1, IPCMessageEnvelope());
    router.router->Stop();

    router.Start(std::make_shared<Network::ConnectorSocket>(100'000)); // not an open descriptor
    router.task.Drain();
    EXPECT_EQ(router.disconnects, 2);
    EXPECT_EQ(log.Count(DPrint::LEVEL_WARNING), 1u) << log.Text();
}
