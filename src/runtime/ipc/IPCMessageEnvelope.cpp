#include "runtime/ipc/IPCMessageEnvelope.h"

#include <google/protobuf/message.h>

void IPCMessageEnvelope::SetPayload(const google::protobuf::Message& message)
{
    set_payload_type(message.GetDescriptor()->name());
    set_payload(message.SerializePartialAsString());
}

bool IPCMessageEnvelope::GetPayload(google::protobuf::Message& message) const
{
    // Not ParseFromString: it would print what is missing to standard error by itself.
    return message.ParsePartialFromString(payload()) && message.IsInitialized();
}
