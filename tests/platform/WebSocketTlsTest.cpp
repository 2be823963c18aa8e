#include "WebSocket.h"

#include "WebSocketCertificates.h"
#include "WebSocketEnds.h"
#include "WebSocketRawClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <malloc.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

namespace
{

class WebSocketTls : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_authority = std::make_unique<WebSocketCertificates>();
        s_serverDir = s_authority->Make("guid-server", "also-called.so");
        s_clientDir = s_authority->Make("guid-client");
    }
    static void TearDownTestSuite()
    {
        s_authority.reset();
    }

    static std::shared_ptr<WebSocket::TlsIdentity> Load(const std::string& directory)
    {
        std::string error;
        auto identity = WebSocket::TlsIdentity::Load(directory, error);
        EXPECT_TRUE(identity) << error;
        return identity;
    }
    static WebSocket::ListenOptions Options()
    {
        WebSocket::ListenOptions options;
        options.subProtocols = {"tarsier"};
        options.tlsSubProtocols = {"tarsier_mTLS"};
        options.tls = Load(s_serverDir);
        return options;
    }
    WebSocket::Target Target(const std::string& expectedPeer, const std::string& identity = s_clientDir) const
    {
        WebSocket::Target target = m_ends.Here("tarsier_mTLS");
        target.tls = Load(identity);
        target.expectedPeer = expectedPeer;
        return target;
    }

    static std::unique_ptr<WebSocketCertificates> s_authority;
    static std::string s_serverDir;
    static std::string s_clientDir;
    WebSocketEnds m_ends{Options()};
};

std::unique_ptr<WebSocketCertificates> WebSocketTls::s_authority;
std::string WebSocketTls::s_serverDir;
std::string WebSocketTls::s_clientDir;

TEST_F(WebSocketTls, KnowsBothSidesAndCarriesBigMessages)
{
    const auto client = m_ends.Connect(Target("guid-server"));
    const std::string big(3U << 20U, 'b');
    m_ends.Send(client, big);
    m_ends.Send(client, "small");
    const auto server = m_ends.WaitForAccepted();
    ASSERT_TRUE(server && server->WaitForMessages(2));
    EXPECT_THAT(server->messages.Get(), ElementsAre(big, "small"));
    m_ends.Send(server, big);
    ASSERT_TRUE(client->WaitForMessages(1));
    EXPECT_EQ(client->messages.Get()[0], big);
    m_ends.Task().Run(
        [&]
        {
            EXPECT_EQ(client->connection->PeerName(), "guid-server");
            EXPECT_EQ(server->connection->PeerName(), "guid-client");
            EXPECT_EQ(server->connection->SubProtocol(), "tarsier_mTLS");
            client->connection->Close();
        });
    EXPECT_TRUE(server->WaitForClosed());
}

TEST_F(WebSocketTls, ServesPlainOnTheSamePortUnderItsOwnName)
{
    const auto plain = m_ends.Connect(m_ends.Here("tarsier"));
    EXPECT_TRUE(plain->isOpen.WaitFor(true));
    const auto wrongName = m_ends.Connect(m_ends.Here("tarsier_mTLS"));
    EXPECT_TRUE(wrongName->WaitForClosed());
    WebSocket::Target target = Target("guid-server");
    target.subProtocol = "tarsier";
    const auto wrongTlsName = m_ends.Connect(target);
    EXPECT_TRUE(wrongTlsName->WaitForClosed());
    EXPECT_THAT(m_ends.accepted.Get(), SizeIs(1));
}

TEST_F(WebSocketTls, ChecksTheServersName)
{
    const auto byDnsName = m_ends.Connect(Target("also-called.so"));
    EXPECT_TRUE(byDnsName->isOpen.WaitFor(true));
    for (const std::string name : {"guid-other", "GUID-SERVER", "guid-serve", "called.so"})
    {
        const auto client = m_ends.Connect(Target(name));
        ASSERT_TRUE(client->WaitForClosed());
        EXPECT_THAT(client->closed.Get(), ElementsAre(HasSubstr("guid-server")));
        EXPECT_FALSE(client->isOpen.Get());
    }
}

TEST_F(WebSocketTls, RefusesCertificatesOfAnotherAuthority)
{
    const WebSocketCertificates stranger;
    const std::string directory = stranger.Make("guid-server");
    const auto client = m_ends.Connect(Target("guid-server", directory));
    EXPECT_TRUE(client->WaitForClosed());
    EXPECT_FALSE(client->isOpen.Get());

    // One that trusts our authority, but was signed by another: the server must not take it.
    std::filesystem::copy(s_serverDir + "/ca.pem", directory + "/ca.pem",
                          std::filesystem::copy_options::overwrite_existing);
    const auto imposter = m_ends.Connect(Target("guid-server", directory));
    EXPECT_TRUE(imposter->WaitForClosed());
    EXPECT_FALSE(imposter->isOpen.Get());
    EXPECT_THAT(m_ends.accepted.Get(), SizeIs(0));
}

TEST_F(WebSocketTls, SurvivesHalfAndBrokenHandshakes)
{
    for (const std::string& bytes : {std::string("\x16"), std::string("\x16\x03\x01\xFF\xFF") + std::string(70000, 'z'),
                                     std::string("\x16\x03\x01\x00\x05\x01\x00\x00\x01\x00", 10)})
    {
        WebSocketRawClient raw;
        ASSERT_TRUE(raw.Connect(m_ends.Port()));
        raw.Send(bytes);
    }
    const auto client = m_ends.Connect(Target("guid-server"));
    EXPECT_TRUE(client->isOpen.WaitFor(true));
}

TEST_F(WebSocketTls, SaysWhatIsWrongWithTheFiles)
{
    const std::string directory = s_authority->Make("guid-broken");
    std::string error;
    std::filesystem::copy(s_serverDir + "/key.pem", directory + "/key.pem",
                          std::filesystem::copy_options::overwrite_existing);
    EXPECT_FALSE(WebSocket::TlsIdentity::Load(directory, error));
    EXPECT_THAT(error, HasSubstr("key.pem"));
    std::ofstream(directory + "/cert.pem") << "no certificate";
    EXPECT_FALSE(WebSocket::TlsIdentity::Load(directory, error));
    EXPECT_THAT(error, HasSubstr("cert.pem"));
    EXPECT_FALSE(WebSocket::TlsIdentity::Load(directory + "/missing", error));
    EXPECT_THAT(error, HasSubstr("ca.pem"));
}

TEST_F(WebSocketTls, CostsLittleAtRest)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's memory tells nothing";
#endif
    const std::size_t pairs = 50;
    const WebSocket::Target target = Target("guid-server");
    m_ends.Connect(target)->isOpen.WaitFor(true);
    const std::size_t before = mallinfo2().uordblks;
    for (std::size_t i = 0; i < pairs; ++i)
    {
        const auto client = m_ends.Connect(target);
        ASSERT_TRUE(client->isOpen.WaitFor(true));
    }
    ASSERT_TRUE(m_ends.WaitForAccepted(pairs));
    m_ends.Task().Drain();
    const std::size_t each = (mallinfo2().uordblks - before) / (2 * pairs);
    EXPECT_LT(each, 48U << 10U); // the peer's certificate and keys are OpenSSL's
}

} // namespace
