#include "bench/publish/Subscriber.h"

#include "runtime/Task.h"
#include "schemas/Sonarix.pb.h"
#include <PorticoClient.h>

#include <algorithm>
#include <memory>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace
{

void Report(const Notice& notice)
{
    if (::write(ChildProcess::kInherited, &notice, sizeof notice) != sizeof notice) // atomic: shorter than PIPE_BUF
    {
        ::_exit(1); // the reader has ended
    }
}

void ReportList(int number, const std::string& body)
{
    Sonarix::ProductList list;
    ProtoToMarkup::FromJson(body, &list, "ProductList");
    const auto online = std::count_if(list.products().begin(), list.products().end(),
                                      [](const Sonarix::Product& row) { return row.state() == SXCommon::ONLINE; });
    Report({Notice::Kind::LIST, number, list.products_size(), static_cast<int>(online), body.size()});
}

} // namespace

void SubscriberStats::Take(const Notice& notice)
{
    switch (notice.kind)
    {
    case Notice::Kind::LIST:
        ++lists;
        bytes += static_cast<double>(notice.bytes);
        last = notice;
        break;
    case Notice::Kind::CONNECTED:
        ++connections;
        break;
    case Notice::Kind::LOST:
        ++losses;
        break;
    }
}

NoticePipe::NoticePipe()
{
    if (::pipe2(m_ends, O_CLOEXEC) != 0)
    {
        std::abort();
    }
}

NoticePipe::~NoticePipe()
{
    ::close(m_ends[0]);
    ::close(m_ends[1]);
}

std::optional<Notice> NoticePipe::Read(std::chrono::steady_clock::time_point until) const
{
    const auto left =
        std::chrono::duration_cast<std::chrono::nanoseconds>(until - std::chrono::steady_clock::now()).count();
    const timespec wait{std::max<long>(left, 0) / 1'000'000'000, std::max<long>(left, 0) % 1'000'000'000};
    pollfd readable{m_ends[0], POLLIN, 0};
    Notice notice;
    if (::ppoll(&readable, 1, &wait, nullptr) != 1 || ::read(m_ends[0], &notice, sizeof notice) != sizeof notice)
    {
        return std::nullopt;
    }
    return notice;
}

SubscriberProcess::SubscriberProcess(int port, int number, const NoticePipe& notices)
    : m_process({"/proc/self/exe", kOption, std::to_string(port), std::to_string(number)}, notices.WriteEnd())
{
}

void SubscriberProcess::Run(int port, int number)
{
    NotifyTargetTaskIF* const task = IL::CreateTask("Subscriber", "");
    Portico::ConnectCallback onConnect(
        [number](const bool& isConnected) {
            Report({isConnected ? Notice::Kind::CONNECTED : Notice::Kind::LOST, number, 0, 0, 0});
        },
        task);
    const auto client = Portico::PorticoClient::Create("bench-" + std::to_string(number), "localhost", port, "tarsier",
                                                       "", &onConnect, std::nullopt, {});
    client->RegisterNotificationText(
        "/sonarix/products", [number](const std::string& body) { ReportList(number, body); },
        Portico::EndpointScope::PRIVATE, 1.0, 0);
    IL::JoinTask(task);
}
