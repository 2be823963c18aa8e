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

/// A small HTTP server, by default on loopback, that sends exactly the bytes a test gives, well-formed or not. One
/// thread for each connection.
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
        std::string m_body; ///< Content-Length bytes
    };

    /// One request and its connection. The server reads the next request from it unless Close() was called.
    class Exchange
    {
    public:
        const Request& Asked() const
        {
            return m_request;
        }
        std::size_t Number() const ///< number of the request on this server, from 0
        {
            return m_number;
        }
        bool Send(const std::string& bytes) const; ///< false if the peer has closed
        void Close()
        {
            m_close = true;
        }
        void AwaitPeerGone() const; ///< blocks until the peer or the server closes

    private:
        friend class HttpServer;
        Request m_request;
        std::size_t m_number = 0;
        int m_socket = -1;
        bool m_close = false;
    };

    using Handler = std::function<void(Exchange&)>;

    /// `port` 0: a free one. `address`: of an interface in the caller's network namespace.
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

    /// A response with Content-Length. `headers` are lines without CRLF.
    static std::string Answer(int status, const std::vector<std::string>& headers = {}, const std::string& body = {});
    static std::uint16_t FreePort(); ///< has no listener

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
