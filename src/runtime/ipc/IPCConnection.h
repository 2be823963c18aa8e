#pragma once

#include "runtime/ipc/IPCFraming.h"

#include <boost/asio/posix/stream_descriptor.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

class DPrint;
class IPCMessageEnvelope;
class NotifyTargetTaskIF;

/// The socket of one router: receives envelopes and sends frames.
/// Task: Start(), Close() and the handlers run on `task`. Send() may be called from any thread.
/// Owner: the router, which must call Close(). Pending waits on the socket keep the connection alive until then.
///
/// Design: Send() writes on the calling thread as much as the kernel accepts. Only the rest is queued for the task. A
/// typical notification therefore costs one system call and no task switch, and an idle connection has no buffer.
class IPCConnection final : public std::enable_shared_from_this<IPCConnection>
{
public:
    struct Handlers
    {
        std::function<void(const IPCMessageEnvelope&)> envelope;
        std::function<void()> closed; ///< once, when the connection ends for any reason but Close()
    };

    /// Takes the descriptor's ownership. `peer` is for the log.
    IPCConnection(NotifyTargetTaskIF* task, const std::shared_ptr<const DPrint>& log, int descriptor,
                  const std::string& peer);
    ~IPCConnection();
    IPCConnection(const IPCConnection&) = delete;
    IPCConnection& operator=(const IPCConnection&) = delete;

    void Start(Handlers handlers);
    void Send(const std::string& frame);
    void Close();

    static constexpr std::size_t kMaxQueuedBytes = std::size_t{8} * 1024 * 1024; ///< more ends the connection

private:
    void WaitToRead();
    void Read();
    void Deliver();
    void WaitToWrite();
    void Write();
    void StopSending();
    void End(const std::string& reason);
    void CloseSocket();

    NotifyTargetTaskIF* const m_task;
    const std::shared_ptr<const DPrint> m_log;
    const std::string m_peer;

    // Used on the task only.
    boost::asio::posix::stream_descriptor m_socket;
    IPCFraming::FrameReader m_reader;
    std::shared_ptr<const Handlers> m_handlers; ///< null before Start() and after the end

    std::mutex m_mutex;    ///< guards the following members, and keeps the descriptor open during a send
    bool m_canSend = true; ///< false: frames are dropped
    std::string m_queue;   ///< the bytes from m_written on wait until the kernel accepts more
    std::size_t m_written = 0;
    bool m_isWriteAwaited = false;
};
