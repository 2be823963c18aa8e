#pragma once

#include "tests/support/Watched.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

/// A small HTTP server, on loopback at first, that says exactly what a test wants, well-formed or not, one thread a
/// connection.
///
///     HttpServer server([](HttpServer::Exchange& exchange) { exchange.Send(HttpServer::Answer(200, {}, "hello")); });
///     fetcher.SetURL(server.Url("/description.xml"));
///     EXPECT_EQ(server.Requests().Get().at(0).m_method, "GET");
class HttpServer final
{
public:
    struct Request
    {
        std::string m_method;
        std::string m_target;
        std::map<std::string, std::string> m_headers;
        std::string m_body; ///< as long as Content-Length says
    };

    /// One request, and the connection that it came on, which the server keeps for the next unless Close() was called.
    class Exchange
    {
    public:
        const Request& Asked() const
        {
            return m_request;
        }
        std::size_t Number() const ///< of the request on this server, from 0
        {
            return m_number;
        }
        bool Send(const std::string& bytes) const; ///< false: the peer has gone
        void Close()
        {
            m_close = true;
        }
        void AwaitPeerGone() const; ///< says no more until the peer, or the server, closes

    private:
        friend class HttpServer;
        Request m_request;
        std::size_t m_number = 0;
        int m_socket = -1;
        bool m_close = false;
    };

    using Handler = std::function<void(Exchange&)>;

    /// `port` 0: a free one. `address`: one of the network namespace that the caller is in.
    explicit HttpServer(Handler handler, std::uint16_t port = 0, const std::string& address = "127.0.0.1");
    ~HttpServer(); ///< closes all connections and waits for their threads
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::uint16_t Port() const
    {
        return m_port;
    }
    std::string Url(const std::string& target = "/") const;
    const Watched<std::vector<Request>>& Requests() const
    {
        return m_requests;
    }

    /// With a Content-Length. `headers` are whole lines without their ends.
    static std::string Answer(int status, const std::vector<std::string>& headers = {}, const std::string& body = {});
    static std::uint16_t FreePort(); ///< on which nobody listens

private:
    struct Connection;
    struct State;
    void Accept();
    void Serve(Connection& connection);

    const Handler m_handler;
    const std::string m_address;
    Watched<std::vector<Request>> m_requests;
    const std::unique_ptr<State> m_state;
    const std::uint16_t m_port;
    std::thread m_acceptor;
};
