#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <set>
#include <string>

/// A gateway of a test's own, on a task of its own: answers `open`, `serve` and the like with {}, keeps every frame
/// for the test to take, and sends what the test tells it to.
///
///     FakeGateway gateway;
///     auto client = gateway.Connect(...port gateway.Port()...);
///     EXPECT_EQ(gateway.Take("open")["params"]["service"], "Name");
///
/// Used on the test's thread.
class FakeGateway
{
public:
    explicit FakeGateway(std::uint16_t port = 0);
    ~FakeGateway(); ///< goes as a killed process does: listener and connections
    FakeGateway(const FakeGateway&) = delete;
    FakeGateway& operator=(const FakeGateway&) = delete;

    std::uint16_t Port() const;

    /// The next frame of that method, not looked at again; waits for it. Null, and the test fails, after 10 s.
    nlohmann::json Take(const std::string& method);
    /// The next frame of any method, or null after `milliseconds`.
    nlohmann::json TakeAny(int milliseconds);
    /// The next answer to a request that the test sent.
    nlohmann::json TakeAnswer();

    void SetMute(const std::set<std::string>& methods); ///< not answered by itself: get, post... never are
    void RefuseServes(int count);                       ///< the next ones get 409

    void Send(const nlohmann::json& frame); ///< on the newest connection
    void SendText(const std::string& text);
    void Answer(const nlohmann::json& request, const nlohmann::json& result);
    void AnswerError(const nlohmann::json& request, int code, const std::string& message);
    void Notify(const std::string& path, const nlohmann::json& body);
    void Request(int id, const std::string& method, const std::string& path, const nlohmann::json& body);

    std::size_t Connections() const; ///< now open
    bool WaitForConnections(std::size_t count) const;

private:
    struct Impl;
    std::shared_ptr<Impl> m_impl;
};
