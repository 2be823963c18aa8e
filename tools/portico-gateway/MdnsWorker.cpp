#include "tools/portico-gateway/MdnsWorker.h"

#include "Mdns/BrowserFactory.h"
#include "Mdns/MdnsClient.h"
#include "runtime/AsyncCallback.h"
#include "runtime/MonotonicClock.h"

#include <algorithm>
#include <utility>

namespace Gateway
{
namespace
{

constexpr const char* kTypes[] = {"_kova-lanyard._tcp", "_kova-accessory._tcp"};
constexpr const char* kGuidKey = "GUID";

} // namespace

MdnsWorker::MdnsWorker(NotifyTargetTaskIF* task)
    : m_task(task)
    , m_timer("PorticoGatewayMdns", task)
{
}

MdnsWorker::~MdnsWorker() = default;

void MdnsWorker::Find(const std::string& guid, AddressesCallback callback)
{
    if (m_browser == nullptr && MonotonicClock::NowMs() >= m_noBackendUntilMs)
    {
        StartBackend();
    }
    if (m_browser == nullptr || m_questions.size() >= kMaxQuestions)
    {
        callback({});
        return;
    }
    const std::int64_t now = MonotonicClock::NowMs();
    Question question{guid, std::move(callback), now + kLimit.count(), {}};
    for (const auto& [id, record] : m_records)
    {
        if (record.guid == guid && now >= record.restsUntilMs) // its address may be another by now
        {
            question.awaited.insert(id);
        }
    }
    const std::set<MDNS::ServiceId> awaited = question.awaited;
    m_questions.push_back(std::move(question));
    for (const MDNS::ServiceId& id : awaited)
    {
        Queue(id);
    }
    ResolveNext();
    AnswerQuestions();
}

void MdnsWorker::Stop()
{
    m_questions.clear();
    m_timer.Cancel();
    DropBackend();
}

void MdnsWorker::StartBackend()
{
    const unsigned int backend = ++m_backend;
    const std::weak_ptr<MdnsWorker> weak = weak_from_this();
    const AsyncCallback<> connected(
        [weak, backend]
        {
            if (const auto self = weak.lock())
            {
                self->HandleConnected(backend);
            }
        },
        m_task);
    const AsyncCallback<> restart(
        [weak, backend]
        {
            if (const auto self = weak.lock())
            {
                self->HandleFailure(backend);
            }
        },
        m_task);
    m_browsingSinceMs = MonotonicClock::NowMs();
    m_browser = MDNS::BrowserFactory::Create(true, false, connected, restart);
    if (m_browser == nullptr)
    {
        m_noBackendUntilMs = m_browsingSinceMs + kBackendPause.count();
    }
}

void MdnsWorker::DropBackend()
{
    ++m_backend;
    for (CallbackConnection& browse : m_browses)
    {
        browse.Disconnect();
    }
    m_browses.clear();
    for (auto& [id, record] : m_records)
    {
        record.resolve.Disconnect();
    }
    m_records.clear();
    m_toResolve.clear();
    m_resolving = 0;
    if (const std::shared_ptr<MDNS::Browser> browser = std::exchange(m_browser, nullptr))
    {
        browser->Stop();
    }
}

void MdnsWorker::HandleConnected(unsigned int backend)
{
    if (backend != m_backend || !m_browses.empty())
    {
        return;
    }
    m_browsingSinceMs = MonotonicClock::NowMs();
    const std::weak_ptr<MdnsWorker> weak = weak_from_this();
    const AsyncCallback<MDNS::ServiceId> added(
        [weak, backend](const MDNS::ServiceId& id)
        {
            if (const auto self = weak.lock())
            {
                self->HandleAdded(backend, id);
            }
        },
        m_task);
    const AsyncCallback<MDNS::ServiceId> removed(
        [weak, backend](const MDNS::ServiceId& id)
        {
            if (const auto self = weak.lock())
            {
                self->HandleRemoved(backend, id);
            }
        },
        m_task);
    for (const char* const type : kTypes)
    {
        m_browses.push_back(m_browser->Browse(type, added, removed));
    }
}

void MdnsWorker::HandleFailure(unsigned int backend)
{
    if (backend != m_backend)
    {
        return;
    }
    DropBackend();
    const std::list<Question> questions = std::exchange(m_questions, {});
    for (const Question& question : questions)
    {
        question.callback({});
    }
}

void MdnsWorker::HandleAdded(unsigned int backend, const MDNS::ServiceId& id)
{
    if (backend != m_backend || (m_records.size() >= kMaxRecords && m_records.count(id) == 0))
    {
        return;
    }
    Queue(id);
    ResolveNext();
}

void MdnsWorker::HandleRemoved(unsigned int backend, const MDNS::ServiceId& id)
{
    const auto found = m_records.find(id);
    if (backend != m_backend || found == m_records.end())
    {
        return;
    }
    found->second.resolve.Disconnect();
    m_resolving -= found->second.isResolving ? 1U : 0U;
    m_records.erase(found);
    for (Question& question : m_questions)
    {
        question.awaited.erase(id);
    }
    ResolveNext();
    AnswerQuestions();
}

void MdnsWorker::HandleResolved(unsigned int backend, const MDNS::ServiceId& id, const std::string& host,
                                const MDNS::Service& service)
{
    const auto found = m_records.find(id);
    if (backend != m_backend || found == m_records.end() || !found->second.isResolving)
    {
        return;
    }
    Record& record = found->second;
    record.isResolving = false;
    record.resolve.Disconnect();
    --m_resolving;
    if (host == MDNS::kNotSeen)
    {
        record.restsUntilMs = MonotonicClock::NowMs() + kResolvePause.count();
    }
    else
    {
        const auto guid = service.txt.find(kGuidKey);
        record.guid = guid != service.txt.end() ? guid->second : std::string();
        record.address = service.address.ipaddr();
    }
    for (Question& question : m_questions)
    {
        question.awaited.erase(id);
    }
    ResolveNext();
    AnswerQuestions();
}

void MdnsWorker::Queue(const MDNS::ServiceId& id)
{
    Record& record = m_records[id];
    if (!record.isQueued && !record.isResolving)
    {
        record.isQueued = true;
        m_toResolve.push_back(id);
    }
}

void MdnsWorker::ResolveNext()
{
    const unsigned int backend = m_backend;
    while (m_resolving < kMaxResolves && !m_toResolve.empty())
    {
        const MDNS::ServiceId id = m_toResolve.front();
        m_toResolve.pop_front();
        const auto found = m_records.find(id);
        if (found == m_records.end() || !found->second.isQueued)
        {
            continue;
        }
        const std::weak_ptr<MdnsWorker> weak = weak_from_this();
        const AsyncCallback<std::string, MDNS::Service> resolved(
            [weak, backend, id](const std::string& host, const MDNS::Service& service)
            {
                if (const auto self = weak.lock())
                {
                    self->HandleResolved(backend, id, host, service);
                }
            },
            m_task);
        found->second.isQueued = false;
        found->second.isResolving = true;
        ++m_resolving;
        found->second.resolve = m_browser->Resolve(id, resolved);
        if (!found->second.resolve.IsConnected()) // the daemon refuses; the next question tries again
        {
            found->second.isResolving = false;
            --m_resolving;
            std::for_each(m_questions.begin(), m_questions.end(), [&id](Question& each) { each.awaited.erase(id); });
        }
    }
}

bool MdnsWorker::IsReady(const Question& question, std::int64_t now) const
{
    if (now >= question.deadlineMs)
    {
        return true;
    }
    if (!question.awaited.empty())
    {
        return false;
    }
    const bool isSettled = now - m_browsingSinceMs >= kLimit.count() && m_resolving == 0 && m_toResolve.empty();
    return isSettled || !AddressesOf(question.guid).empty();
}

void MdnsWorker::AnswerQuestions()
{
    const std::int64_t now = MonotonicClock::NowMs();
    std::int64_t next = 0;
    for (auto question = m_questions.begin(); question != m_questions.end();)
    {
        if (IsReady(*question, now))
        {
            question->callback(AddressesOf(question->guid));
            question = m_questions.erase(question);
            continue;
        }
        next = next == 0 ? question->deadlineMs : std::min(next, question->deadlineMs);
        ++question;
    }
    if (next != 0)
    {
        m_timer.PostIn(static_cast<unsigned int>(next - now), [this] { AnswerQuestions(); });
    }
}

std::vector<std::string> MdnsWorker::AddressesOf(const std::string& guid) const
{
    std::vector<std::string> addresses;
    for (const auto& [id, record] : m_records)
    {
        const bool isKnown = std::find(addresses.begin(), addresses.end(), record.address) != addresses.end();
        if (record.guid == guid && !record.address.empty() && !isKnown)
        {
            addresses.push_back(record.address);
        }
    }
    return addresses;
}

} // namespace Gateway
