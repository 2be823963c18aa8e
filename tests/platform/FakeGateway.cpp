#include "FakeGateway.h"

#include "Task.h"
#include "WebSocket.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <vector>

using nlohmann::json;

namespace
{

constexpr std::chrono::seconds kLimit{10};
const std::set<std::string> kRequests = {"get", "post", "put", "delete"};

} // namespace

struct FakeGateway::Impl
{
    NotifyTargetTaskIF* task = IL::CreateTask("FakeGateway", "");

    // On the task.
    std::shared_ptr<WebSocket::Listener> listener;
    std::vector<std::shared_ptr<WebSocket::Connection>> connections;
    std::set<std::string> mute;
    int refusals = 0;

    // For the test to look at.
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::deque<json> frames;
    std::size_t open = 0;
    std::uint16_t port = 0;

    void Do(const std::function<void()>& step) const
    {
        std::promise<void> done;
        IL::BreakThread(
            [&step, &done]
            {
                step();
                done.set_value();
            },
            task);
        done.get_future().get();
    }

    void Accept(const std::shared_ptr<WebSocket::Connection>& connection)
    {
        WebSocket::Connection* const raw = connection.get();
        WebSocket::Connection::Handlers handlers;
        handlers.message = [this, raw](const std::string& text) { Handle(raw, json::parse(text)); };
        handlers.closed = [this, raw](const std::string&)
        {
            std::erase_if(connections, [raw](const auto& each) { return each.get() == raw; });
            CountOpen();
        };
        connection->SetHandlers(std::move(handlers));
        connections.push_back(connection);
        CountOpen();
    }

    void CountOpen()
    {
        const std::scoped_lock lock(mutex);
        open = connections.size();
        changed.notify_all();
    }

    void Handle(WebSocket::Connection* from, const json& frame)
    {
        const std::string method = frame.value("method", "");
        {
            const std::scoped_lock lock(mutex);
            frames.push_back(frame);
            changed.notify_all();
        }
        if (method.empty() || !frame.contains("id") || kRequests.contains(method) || mute.contains(method))
        {
            return;
        }
        json answer = {{"jsonrpc", "2.0"}, {"id", frame["id"]}};
        if (method == "serve" && refusals > 0)
        {
            --refusals;
            answer["error"] = {{"code", 409}, {"message", "taken"}, {"data", {{"subcode", 0}, {"guid", ""}}}};
        }
        else
        {
            answer["result"] = json::object();
        }
        from->Send(answer.dump());
    }

    template <class Predicate>
    json Wait(Predicate matches, std::chrono::milliseconds limit)
    {
        std::unique_lock lock(mutex);
        json taken;
        changed.wait_for(lock, limit,
                         [&]
                         {
                             const auto found = std::find_if(frames.begin(), frames.end(), matches);
                             if (found == frames.end())
                             {
                                 return false;
                             }
                             taken = std::move(*found);
                             frames.erase(found);
                             return true;
                         });
        return taken;
    }
};

FakeGateway::FakeGateway(std::uint16_t port)
    : m_impl(std::make_shared<Impl>())
{
    m_impl->Do(
        [this, port]
        {
            WebSocket::ListenOptions options;
            options.port = port;
            options.subProtocols = {"tarsier", "tarsier_mTLS"};
            std::string error;
            m_impl->listener = WebSocket::Listen(
                m_impl->task, options, [this](auto connection) { m_impl->Accept(connection); }, error);
            EXPECT_TRUE(m_impl->listener) << error;
            m_impl->port = m_impl->listener ? m_impl->listener->Port() : std::uint16_t{0};
        });
}

FakeGateway::~FakeGateway()
{
    m_impl->Do(
        [this]
        {
            m_impl->listener.reset();
            for (const auto& connection : m_impl->connections)
            {
                connection->Close();
            }
            m_impl->connections.clear();
        });
    IL::StopTask(m_impl->task);
    IL::JoinTask(m_impl->task);
}

std::uint16_t FakeGateway::Port() const
{
    return m_impl->port;
}

json FakeGateway::Take(const std::string& method)
{
    json frame = m_impl->Wait([&method](const json& each) { return each.value("method", "") == method; }, kLimit);
    EXPECT_FALSE(frame.is_null()) << "no \"" << method << "\" came";
    return frame.is_null() ? json::object() : frame;
}

json FakeGateway::TakeAny(int milliseconds)
{
    return m_impl->Wait([](const json&) { return true; }, std::chrono::milliseconds(milliseconds));
}

json FakeGateway::TakeAnswer()
{
    json frame = m_impl->Wait([](const json& each) { return !each.contains("method"); }, kLimit);
    EXPECT_FALSE(frame.is_null()) << "no answer came";
    return frame.is_null() ? json::object() : frame;
}

void FakeGateway::SetMute(const std::set<std::string>& methods)
{
    m_impl->Do([&] { m_impl->mute = methods; });
}

void FakeGateway::RefuseServes(int count)
{
    m_impl->Do([&] { m_impl->refusals = count; });
}

void FakeGateway::SendText(const std::string& text)
{
    m_impl->Do(
        [&]
        {
            if (!m_impl->connections.empty())
            {
                m_impl->connections.back()->Send(text);
            }
        });
}

void FakeGateway::Send(const json& frame)
{
    SendText(frame.dump());
}

void FakeGateway::Answer(const json& request, const json& result)
{
    Send({{"jsonrpc", "2.0"}, {"id", request["id"]}, {"result", result}});
}

void FakeGateway::AnswerError(const json& request, int code, const std::string& message)
{
    Send({{"jsonrpc", "2.0"},
          {"id", request["id"]},
          {"error", {{"code", code}, {"message", message}, {"data", {{"subcode", 7}, {"guid", "G"}}}}}});
}

void FakeGateway::Notify(const std::string& path, const json& body)
{
    Send({{"jsonrpc", "2.0"}, {"method", "notify"}, {"params", {{"path", path}, {"version", 1.0}, {"body", body}}}});
}

void FakeGateway::Request(int id, const std::string& method, const std::string& path, const json& body)
{
    json params = {{"path", path}, {"version", 1.0}};
    if (!body.is_null())
    {
        params["body"] = body;
    }
    Send({{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}});
}

std::size_t FakeGateway::Connections() const
{
    const std::scoped_lock lock(m_impl->mutex);
    return m_impl->open;
}

bool FakeGateway::WaitForConnections(std::size_t count) const
{
    std::unique_lock lock(m_impl->mutex);
    return m_impl->changed.wait_for(lock, kLimit, [&] { return m_impl->open == count; });
}
