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

/// The socket of one router: envelopes in, frames out.
/// Task: handlers are called on `task`; Start() and Close() are called there, Send() from any thread.
/// Owner: the router. Its own pending waits keep it alive until Close(), which its owner owes it.
///
/// Design: a frame is written where it is sent, on whichever thread, as far as the kernel takes it; only what is left
/// waits here for the task to go on. So the usual notification costs one system call and no hop, and a silent client
/// has no buffer on our side.
class IPCConnection final : public std::enable_shared_from_this<IPCConnection>
{
public:
    struct Handlers
    {
        std::function<void(const IPCMessageEnvelope&)> envelope;
        std::function<void()> closed; ///< once, when the peer has gone or the connection had to end; not after Close()
    };

    /// Takes over the descriptor. `log` outlives it. `peer` is for the log.
    IPCConnection(NotifyTargetTaskIF* task, const std::shared_ptr<const DPrint>& log, int descriptor,
                  const std::string& peer);
    ~IPCConnection();
    IPCConnection(const IPCConnection&) = delete;
    IPCConnection& operator=(const IPCConnection&) = delete;

    void Start(Handlers handlers);
    void Send(const std::string& frame);
    void Close();

    static constexpr std::size_t kMaxWaitingBytes = std::size_t{8} * 1024 * 1024; ///< more ends the connection

private:
    void WaitToRead();
    void Read();
    void Deliver();
    void WaitToWrite();
    void Write();
    void StopSending();
    void End(const std::string& reason);
    void Shut();

    NotifyTargetTaskIF* const m_task;
    const std::shared_ptr<const DPrint> m_log;
    const std::string m_peer;

    // The task's own.
    boost::asio::posix::stream_descriptor m_socket;
    IPCFraming::FrameReader m_reader;
    std::shared_ptr<const Handlers> m_handlers; ///< null before Start() and after the end

    std::mutex m_mutex;    ///< guards what follows, and the descriptor from being closed during a send
    bool m_isOpen = true;  ///< false: nothing is sent any more
    std::string m_waiting; ///< what the kernel has not taken yet, from m_written on
    std::size_t m_written = 0;
    bool m_isWriteAwaited = false;
};
