#include "runtime/ipc/IPCMessageEnvelope.h"

void IPCMessageEnvelope::SetPayload(const google::protobuf::Message& message)
{
    m_base.set_payload_type(message.GetDescriptor()->name());
    m_base.set_payload(message.SerializePartialAsString());
}

bool IPCMessageEnvelope::GetPayload(google::protobuf::Message& message) const
{
    // ParseFromString would print missing required fields to standard error.
    return message.ParsePartialFromString(m_base.payload()) && message.IsInitialized();
}
