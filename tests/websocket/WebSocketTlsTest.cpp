#include "websocket/WebSocket.h"

#include "tests/websocket/WebSocketEnds.h"
#include "tests/websocket/support/WebSocketCertificates.h"
#include "tests/websocket/support/WebSocketRawClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

namespace
{

class WebSocketTls : public testing::Test
{
protected:
    static std::shared_ptr<WebSocket::TlsIdentity> Load(const std::string& directory)
    {
        std::string error;
        auto identity = WebSocket::TlsIdentity::Load(directory, error);
        EXPECT_TRUE(identity) << error;
        return identity;
    }
    WebSocket::ListenOptions Options() const
    {
        WebSocket::ListenOptions options;
        options.tlsSubProtocols = {"tarsier_mTLS"};
        options.tls = Load(m_serverDir);
        return options;
    }
    WebSocket::Target Target(const std::string& expectedPeer, const std::string& identity) const
    {
        return {"127.0.0.1", m_ends.Port(), "tarsier_mTLS", Load(identity), expectedPeer};
    }

    const WebSocketCertificates m_authority;
    const std::string m_serverDir = m_authority.Make("guid-server", "also-called.so");
    const std::string m_clientDir = m_authority.Make("guid-client");
    WebSocketEnds m_ends{{}, Options()};
};

TEST_F(WebSocketTls, TlsAndPlainConnectionsShareAPort)
{
    const auto client = m_ends.Connect(Target("guid-server", m_clientDir));
    const std::string big(3U << 20U, 'b');
    m_ends.Send(client, big);
    const auto server = m_ends.Accepted();
    m_ends.Send(server, big);
    ASSERT_TRUE(server->WaitForMessages(1) && client->WaitForMessages(1));
    EXPECT_THAT(server->messages.Get(), ElementsAre(big));
    EXPECT_THAT(client->messages.Get(), ElementsAre(big));
    m_ends.task.Run([&] { EXPECT_EQ(server->connection->PeerName(), "guid-client"); });

    EXPECT_TRUE(m_ends.Connect(m_ends.Here())->isOpen.WaitFor(true));
    EXPECT_TRUE(m_ends.Connect(m_ends.Here("tarsier_mTLS"))->WaitForClosed()) << "this sub-protocol needs TLS";
    WebSocket::Target target = Target("guid-server", m_clientDir);
    target.subProtocol = "tarsier";
    EXPECT_TRUE(m_ends.Connect(target)->WaitForClosed());
    EXPECT_THAT(m_ends.accepted.Get(), SizeIs(2));
}

TEST_F(WebSocketTls, ClientChecksTheNameOfTheServer)
{
    EXPECT_TRUE(m_ends.Connect(Target("also-called.so", m_clientDir))->isOpen.WaitFor(true));
    for (const std::string name : {"guid-other", "GUID-SERVER", "guid-serve", "called.so"})
    {
        const auto client = m_ends.Connect(Target(name, m_clientDir));
        ASSERT_TRUE(client->WaitForClosed());
        EXPECT_THAT(client->closed.Get(), ElementsAre(HasSubstr("guid-server")));
        EXPECT_FALSE(client->isOpen.Get());
    }
}

TEST_F(WebSocketTls, UnknownAuthorityOrBrokenHandshakeIsRefused)
{
    const WebSocketCertificates stranger;
    const std::string directory = stranger.Make("guid-server");
    const auto client = m_ends.Connect(Target("guid-server", directory));
    EXPECT_TRUE(client->WaitForClosed());
    // This client trusts our authority, but its certificate is signed by another one.
    std::filesystem::copy(m_serverDir + "/ca.pem", directory + "/ca.pem",
                          std::filesystem::copy_options::overwrite_existing);
    const auto imposter = m_ends.Connect(Target("guid-server", directory));
    EXPECT_TRUE(imposter->WaitForClosed());
    EXPECT_FALSE(client->isOpen.Get() || imposter->isOpen.Get());
    for (const std::string& bytes : {std::string("\x16"), std::string("\x16\x03\x01\xFF\xFF") + std::string(70000, 'z'),
                                     std::string("\x16\x03\x01\x00\x05\x01\x00\x00\x01\x00", 10)})
    {
        WebSocketRawClient(m_ends.Port()).Send(bytes);
    }
    EXPECT_THAT(m_ends.accepted.Get(), SizeIs(0));
    EXPECT_TRUE(m_ends.Connect(Target("guid-server", m_clientDir))->isOpen.WaitFor(true));
}

} // namespace
