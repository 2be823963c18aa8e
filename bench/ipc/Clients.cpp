#include "bench/ipc/Clients.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace
{

[[noreturn]] void Fail(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

void WriteAll(int socket, const std::string& bytes)
{
    for (std::size_t written = 0; written < bytes.size();)
    {
        const ssize_t count = ::send(socket, bytes.data() + written, bytes.size() - written, MSG_NOSIGNAL);
        if (count <= 0)
        {
            Fail("write");
        }
        written += static_cast<std::size_t>(count);
    }
}

void Discard(int socket, std::size_t bytes)
{
    static std::vector<char> s_buffer(std::size_t{256} * 1024);
    while (bytes > 0)
    {
        const ssize_t count = ::recv(socket, s_buffer.data(), std::min(bytes, s_buffer.size()), 0);
        if (count <= 0)
        {
            Fail("read");
        }
        bytes -= static_cast<std::size_t>(count);
    }
}

std::string ReadLine(int socket)
{
    std::string line;
    for (char letter = 0; ::recv(socket, &letter, 1, 0) == 1;)
    {
        if (letter == '\n')
        {
            return line;
        }
        line += letter;
    }
    return {};
}

int ConnectTo(const std::string& path)
{
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    {
        Fail(path);
    }
    return socket;
}

std::string HexFromBytes(const std::string& bytes)
{
    std::string text;
    for (const char byte : bytes)
    {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        text += digits;
    }
    return text;
}

std::string BytesFromHex(const std::string& text)
{
    std::string bytes;
    for (std::size_t at = 0; at + 1 < text.size(); at += 2)
    {
        bytes += static_cast<char>(std::strtol(text.substr(at, 2).c_str(), nullptr, 16));
    }
    return bytes;
}

void Execute(const std::string& command, std::map<std::string, std::vector<int>>& connections)
{
    std::istringstream words(command);
    std::string verb;
    std::string path;
    std::size_t count = 0;
    std::size_t bytes = 0;
    std::string request;
    words >> verb >> path >> count >> bytes >> request;
    std::vector<int>& sockets = connections[path];
    if (verb == "connect")
    {
        while (sockets.size() > count)
        {
            ::close(sockets.back());
            sockets.pop_back();
        }
        while (sockets.size() < count)
        {
            sockets.push_back(ConnectTo(path));
        }
        return;
    }
    request = BytesFromHex(request);
    for (std::size_t round = 0; round < count; ++round)
    {
        if (!request.empty())
        {
            std::for_each(sockets.begin(), sockets.end(), [&](int socket) { WriteAll(socket, request); });
        }
        std::for_each(sockets.begin(), sockets.end(), [&](int socket) { Discard(socket, bytes); });
    }
}

} // namespace

Clients::Clients()
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
    {
        Fail("socketpair");
    }
    m_socket = ends[0];
    m_process.emplace(std::vector<std::string>{"/proc/self/exe", "--clients"}, ends[1]);
    ::close(ends[1]);
}

Clients::~Clients()
{
    ::close(m_socket);
}

void Clients::Command(const std::string& command)
{
    WriteAll(m_socket, command + '\n');
    if (ReadLine(m_socket) != "done")
    {
        throw std::runtime_error("the client process failed: " + command.substr(0, 100));
    }
}

void Clients::Connect(const std::string& path, std::size_t count)
{
    Command("connect " + path + ' ' + std::to_string(count));
}

void Clients::RoundTrips(const std::string& path, std::size_t rounds, const std::string& request,
                         std::size_t answerBytes)
{
    Command("trips " + path + ' ' + std::to_string(rounds) + ' ' + std::to_string(answerBytes) + ' ' +
            HexFromBytes(request));
}

void Clients::Read(const std::string& path, std::size_t bytes)
{
    Command("read " + path + " 1 " + std::to_string(bytes));
}

int Clients::Main()
{
    std::map<std::string, std::vector<int>> connections;
    try
    {
        for (;;)
        {
            const std::string command = ReadLine(ChildProcess::kInherited);
            if (command.empty())
            {
                return 0;
            }
            Execute(command, connections);
            WriteAll(ChildProcess::kInherited, "done\n");
        }
    }
    catch (const std::exception& failure)
    {
        std::fprintf(stderr, "clients: %s\n", failure.what());
        return 1;
    }
}
