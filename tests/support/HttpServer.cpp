#include "HttpServer.h"

#include <array>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

/// Bound, not listening yet.
std::pair<int, std::uint16_t> Bind(const std::string& host, std::uint16_t port)
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int reuse = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = inet_addr(host.c_str());
    socklen_t length = sizeof(address);
    if (bind(socket, reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    {
        throw std::runtime_error("no port on " + host + "");
    }
    return {socket, ntohs(address.sin_port)};
}

/// Reads until `text` is at least `size` long, or holds `end`; false: the peer has gone.
bool ReadUntil(int socket, std::string& text, std::size_t size, const std::string& end)
{
    while (end.empty() ? text.size() < size : text.find(end) == std::string::npos)
    {
        std::array<char, 4096> buffer;
        const ssize_t bytes = recv(socket, buffer.data(), buffer.size(), 0);
        if (bytes <= 0)
        {
            return false;
        }
        text.append(buffer.data(), static_cast<std::size_t>(bytes));
    }
    return true;
}

/// Takes one request off the front of `text`, which keeps what came after it.
std::optional<HttpServer::Request> ReadRequest(int socket, std::string& text)
{
    if (!ReadUntil(socket, text, 0, "\r\n\r\n"))
    {
        return std::nullopt;
    }
    const std::size_t headSize = text.find("\r\n\r\n") + 4;
    std::istringstream head(text.substr(0, headSize));
    text.erase(0, headSize);
    HttpServer::Request request;
    std::string line;
    std::getline(head, line);
    std::istringstream(line) >> request.m_method >> request.m_target;
    while (std::getline(head, line) && line != "\r")
    {
        const std::size_t colon = line.find(": ");
        request.m_headers[line.substr(0, colon)] = line.substr(colon + 2, line.size() - colon - 3);
    }
    const auto found = request.m_headers.find("Content-Length");
    const std::size_t length = found == request.m_headers.end() ? 0 : std::stoul(found->second);
    if (!ReadUntil(socket, text, length, ""))
    {
        return std::nullopt;
    }
    request.m_body = text.substr(0, length);
    text.erase(0, length);
    return request;
}

} // namespace

HttpServer::HttpServer(Handler handler, std::uint16_t port, const std::string& address)
    : m_handler(std::move(handler))
    , m_address(address)
{
    std::tie(m_listener, m_port) = Bind(address, port);
    listen(m_listener, 128);
    m_acceptor = std::thread([this] { Accept(); });
}

HttpServer::~HttpServer()
{
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
        shutdown(m_listener, SHUT_RDWR);
        for (const int socket : m_sockets)
        {
            shutdown(socket, SHUT_RDWR);
        }
    }
    m_acceptor.join();
    for (std::thread& thread : m_threads)
    {
        thread.join();
    }
    for (const int socket : m_sockets)
    {
        close(socket);
    }
    close(m_listener);
}

void HttpServer::Accept()
{
    for (int socket = 0; (socket = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
    {
        const std::lock_guard lock(m_mutex);
        if (m_stopping)
        {
            close(socket);
            return;
        }
        m_sockets.push_back(socket);
        m_threads.emplace_back([this, socket] { Serve(socket); });
    }
}

void HttpServer::Serve(int socket)
{
    std::string text;
    Exchange exchange;
    exchange.m_socket = socket;
    while (!exchange.m_close)
    {
        std::optional<Request> request = ReadRequest(socket, text);
        if (!request)
        {
            break;
        }
        exchange.m_request = *request;
        m_requests.Change(
            [&](std::vector<Request>& all)
            {
                exchange.m_number = all.size();
                all.push_back(std::move(*request));
            });
        m_handler(exchange);
    }
    shutdown(socket, SHUT_RDWR); // closed with the server: its number must not be another's before that
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
    const auto [socket, port] = Bind("127.0.0.1", 0);
    close(socket);
    return port;
}

bool HttpServer::Exchange::Send(const std::string& bytes) const
{
    for (std::size_t sent = 0; sent < bytes.size();)
    {
        const ssize_t count = send(m_socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
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
    std::string rest;
    while (ReadUntil(m_socket, rest, rest.size() + 1, ""))
    {
    }
}
