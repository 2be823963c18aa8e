#include "tests/support/HttpServer.h"

#include <array>
#include <deque>
#include <utility>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <sys/socket.h>

namespace http = boost::beast::http;
using boost::asio::ip::tcp;

struct HttpServer::Connection
{
    tcp::socket m_socket;
    std::thread m_thread;
};

struct HttpServer::State
{
    boost::asio::io_context m_context;
    tcp::acceptor m_listener;
    std::deque<Connection> m_connections; ///< used by the accepting thread until it has ended

    State(const std::string& address, std::uint16_t port)
        : m_listener(m_context, tcp::endpoint(boost::asio::ip::make_address(address), port))
    {
    }
};

HttpServer::HttpServer(Handler handler, std::uint16_t port, const std::string& address)
    : m_handler(std::move(handler))
    , m_address(address)
    , m_state(std::make_unique<State>(address, port))
    , m_port(m_state->m_listener.local_endpoint().port())
    , m_acceptor([this] { Accept(); })
{
}

HttpServer::~HttpServer()
{
    ::shutdown(m_state->m_listener.native_handle(), SHUT_RDWR);
    m_acceptor.join();
    for (Connection& each : m_state->m_connections)
    {
        ::shutdown(each.m_socket.native_handle(), SHUT_RDWR);
        each.m_thread.join();
    }
}

void HttpServer::Accept()
{
    boost::system::error_code error;
    for (tcp::socket socket = m_state->m_listener.accept(error); !error; socket = m_state->m_listener.accept(error))
    {
        Connection& made = m_state->m_connections.emplace_back(Connection{std::move(socket), {}});
        made.m_thread = std::thread([this, &made] { Serve(made); });
    }
}

void HttpServer::Serve(Connection& connection)
{
    boost::beast::flat_buffer buffer;
    Exchange exchange;
    exchange.m_socket = connection.m_socket.native_handle();
    while (!exchange.m_close)
    {
        http::request_parser<http::string_body> parser;
        parser.body_limit(boost::none);
        boost::system::error_code error;
        http::read(connection.m_socket, buffer, parser, error);
        if (error)
        {
            break;
        }
        const auto& read = parser.get();
        exchange.m_request = {read.method_string(), read.target(), {}, read.body()};
        for (const auto& field : read)
        {
            exchange.m_request.m_headers[field.name_string()] = field.value();
        }
        m_requests.Change(
            [&](std::vector<Request>& all)
            {
                exchange.m_number = all.size();
                all.push_back(exchange.m_request);
            });
        m_handler(exchange);
    }
    ::shutdown(exchange.m_socket, SHUT_RDWR); // not closed yet: ~HttpServer() uses the descriptor
}

std::string HttpServer::Url(const std::string& target) const
{
    return "http://" + m_address + ":" + std::to_string(m_port) + target;
}

std::string HttpServer::Answer(int status, const std::vector<std::string>& headers, const std::string& body)
{
    std::string text = "HTTP/1.1 " + std::to_string(status) + " Reason\r\n";
    for (const std::string& header : headers)
    {
        text += header + "\r\n";
    }
    return text + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::uint16_t HttpServer::FreePort()
{
    return State("127.0.0.1", 0).m_listener.local_endpoint().port();
}

bool HttpServer::Exchange::Send(const std::string& bytes) const
{
    for (std::size_t sent = 0; sent < bytes.size();)
    {
        const ssize_t count = ::send(m_socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
        {
            return false;
        }
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

void HttpServer::Exchange::AwaitPeerGone() const
{
    std::array<char, 4096> rest;
    while (::recv(m_socket, rest.data(), rest.size(), 0) > 0)
    {
    }
}
