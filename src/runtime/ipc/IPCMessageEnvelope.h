#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace google::protobuf
{
class Message;
}

/// The fields of IPCMessageEnvelopeBase.proto, with the accessors that protobuf would give them: a class of our own,
/// since those that protobuf makes cannot be derived from. A value.
class IPCMessageEnvelopeBase
{
public:
    enum Kind
    {
        REQUEST = 0,
        RESPONSE = 1,
        NOTIFICATION = 2,
        REJECT = 3, ///< in place of a response: the request could not be taken
    };

    const std::string& metadata() const
    {
        return m_metadata;
    }
    bool has_payload_type() const
    {
        return m_payloadType.has_value();
    }
    const std::string& payload_type() const ///< empty where it is not set
    {
        static const std::string s_none;
        return m_payloadType ? *m_payloadType : s_none;
    }
    std::uint32_t id() const
    {
        return m_id;
    }
    std::uint32_t tid() const
    {
        return m_tid;
    }
    Kind kind() const
    {
        return m_kind;
    }
    const std::string& payload() const
    {
        return m_payload;
    }

    void set_metadata(std::string metadata)
    {
        m_metadata = std::move(metadata);
    }
    void set_payload_type(std::string type)
    {
        m_payloadType = std::move(type);
    }
    void set_id(std::uint32_t id)
    {
        m_id = id;
    }
    void set_tid(std::uint32_t tid)
    {
        m_tid = tid;
    }
    void set_kind(Kind kind)
    {
        m_kind = kind;
    }
    void set_payload(std::string payload)
    {
        m_payload = std::move(payload);
    }

private:
    std::string m_metadata;
    std::optional<std::string> m_payloadType;
    std::uint32_t m_id = 0;
    std::uint32_t m_tid = 0;
    Kind m_kind = REQUEST;
    std::string m_payload;
};

/// One message of the local sockets around the record that it carries. A value.
class IPCMessageEnvelope final : public IPCMessageEnvelopeBase
{
public:
    /// Stores the record and the name of its type. Required fields that are missing are the sender's fault and seen by
    /// the receiver.
    void SetPayload(const google::protobuf::Message& message);

    /// Replaces `message`, whatever type the payload says that it is. False where the bytes are none of it, or lack a
    /// required field; what `message` then holds is of no use.
    [[nodiscard]] bool GetPayload(google::protobuf::Message& message) const;
};
