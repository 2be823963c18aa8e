#pragma once

#include "runtime/ipc/IPCMessageEnvelopeBase.pb.h"

/// One message of the local sockets and the record in its payload. `->` reaches the fields of IPCMessageEnvelopeBase,
/// which is a member because generated classes are final. A value.
class IPCMessageEnvelope final
{
public:
    /// Stores the serialized record and the short name of its type. A record may lack required fields: the receiver's
    /// GetPayload() then fails.
    void SetPayload(const google::protobuf::Message& message);

    /// Replaces `message` by the payload, without comparing the type names. Returns false if the bytes do not parse or
    /// a required field is missing; the content of `message` is unspecified then.
    [[nodiscard]] bool GetPayload(google::protobuf::Message& message) const;

    IPCMessageEnvelopeBase* operator->()
    {
        return &m_base;
    }
    const IPCMessageEnvelopeBase* operator->() const
    {
        return &m_base;
    }

private:
    IPCMessageEnvelopeBase m_base;
};
