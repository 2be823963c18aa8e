#include "PollLoop.h"

#include "Session.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <thread>
#include <utility>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

using Clock = std::chrono::steady_clock;

PollLoop& PollLoop::Instance()
{
    static PollLoop& s_loop = *new PollLoop; // outlives the statics, which its thread may still use
    return s_loop;
}

PollLoop::PollLoop()
    : m_wakeDescriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
    std::thread thread([this] { Run(); });
    ::pthread_setname_np(thread.native_handle(), "PorticoClientIO");
    thread.detach();
}

void PollLoop::Add(std::shared_ptr<Session> session)
{
    {
        const std::lock_guard lock(m_mutex);
        m_added.push_back(std::move(session));
    }
    Wake();
}

void PollLoop::Wake() const
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t size = ::write(m_wakeDescriptor, &one, sizeof one); // full: it wakes anyhow
}

void PollLoop::Run()
{
    std::vector<std::shared_ptr<Session>> sessions;
    std::vector<pollfd> descriptors;
    while (true)
    {
        {
            const std::lock_guard lock(m_mutex);
            std::move(m_added.begin(), m_added.end(), std::back_inserter(sessions));
            m_added.clear();
        }
        auto due = Clock::now() + std::chrono::minutes(1);
        descriptors.assign(1, {m_wakeDescriptor, POLLIN, 0});
        for (const std::shared_ptr<Session>& session : sessions)
        {
            descriptors.push_back(session->Prepare(due));
        }
        const auto pause = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
        ::poll(descriptors.data(), descriptors.size(), static_cast<int>(std::max<std::int64_t>(pause.count(), 0)));
        std::uint64_t wakes = 0;
        [[maybe_unused]] const ssize_t size = ::read(m_wakeDescriptor, &wakes, sizeof wakes);
        const auto now = Clock::now();
        for (std::size_t index = 0; index < sessions.size(); ++index)
        {
            if (!sessions[index]->Step(descriptors[index + 1].revents, now))
            {
                sessions[index].reset();
            }
        }
        std::erase(sessions, nullptr);
    }
}
