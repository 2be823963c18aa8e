#include "IPCFraming.h"
#include "IPCMessageEnvelope.h"
#include "SonarixPb.pb.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using IPCFraming::FrameReader;

namespace
{

std::string Frame(const IPCMessageEnvelope& envelope)
{
    std::string stream;
    EXPECT_TRUE(IPCFraming::AppendFrame(stream, envelope));
    return stream;
}

IPCMessageEnvelope Request()
{
    SonarixPb::ServiceId id;
    id.set_type("_kova-lanyard._tcp");
    IPCMessageEnvelope envelope;
    envelope.SetPayload(id);
    envelope.set_id(2);
    envelope.set_tid(7);
    envelope.set_metadata("m");
    return envelope;
}

std::string Length(std::uint32_t length)
{
    return {static_cast<char>(length >> 24U), static_cast<char>(length >> 16U), static_cast<char>(length >> 8U),
            static_cast<char>(length)};
}

void ExpectRequest(const IPCMessageEnvelope& envelope)
{
    EXPECT_EQ(envelope.id(), 2u);
    EXPECT_EQ(envelope.tid(), 7u);
    EXPECT_EQ(envelope.kind(), IPCMessageEnvelope::REQUEST);
    EXPECT_EQ(envelope.metadata(), "m");
    EXPECT_EQ(envelope.payload_type(), "ServiceId");
    SonarixPb::ServiceId id;
    EXPECT_TRUE(envelope.GetPayload(id));
    EXPECT_EQ(id.type(), "_kova-lanyard._tcp");
}

} // namespace

/// Somebody writes a client in another language against these bytes.
TEST(IPCFramingTest, BytesOnTheWireAreThese)
{
    IPCMessageEnvelope envelope;
    envelope.set_payload_type("V");
    envelope.set_id(3);
    envelope.set_tid(300);
    envelope.set_kind(IPCMessageEnvelope::REJECT);
    envelope.set_payload("xy");
    EXPECT_EQ(Frame(envelope), std::string("\0\0\0\x0e"
                                           "\x12\x01V"
                                           "\x18\x03"
                                           "\x20\xac\x02"
                                           "\x28\x03"
                                           "\x32\x02xy",
                                           4 + 3 + 2 + 3 + 2 + 4));
}

TEST(IPCFramingTest, StreamCutAnywhereGivesTheSameEnvelopes)
{
    const std::string stream = Frame(Request()) + Frame(Request()) + Length(0) + Frame(Request());
    for (std::size_t cut = 0; cut <= stream.size(); ++cut)
    {
        FrameReader reader;
        std::vector<IPCMessageEnvelope> envelopes;
        for (const std::string& piece : {stream.substr(0, cut), stream.substr(cut)})
        {
            reader.Append(piece);
            IPCMessageEnvelope envelope;
            while (reader.Next(envelope) == FrameReader::ENVELOPE)
            {
                envelopes.push_back(envelope);
            }
        }
        ASSERT_EQ(envelopes.size(), 4u) << cut;
        ExpectRequest(envelopes[0]);
        ExpectRequest(envelopes[1]);
        EXPECT_FALSE(envelopes[2].has_payload_type()) << "an empty frame is an envelope with nothing set";
        EXPECT_EQ(envelopes[2].id(), 0u);
        ExpectRequest(envelopes[3]);
    }
}

TEST(IPCFramingTest, FourMiBAreTheLimitBothWays)
{
    IPCMessageEnvelope envelope;
    std::string stream;
    const std::size_t overhead = Frame(envelope).size() - IPCFraming::kLengthBytes + 3; // three more of the length
    envelope.set_payload(std::string(IPCFraming::kMaxFrameBytes - overhead, 'x'));
    ASSERT_TRUE(IPCFraming::AppendFrame(stream, envelope));
    ASSERT_EQ(stream.size(), IPCFraming::kLengthBytes + IPCFraming::kMaxFrameBytes);
    FrameReader reader;
    IPCMessageEnvelope read;
    reader.Append(stream);
    EXPECT_EQ(reader.Next(read), FrameReader::ENVELOPE);
    EXPECT_EQ(read.payload(), envelope.payload());

    envelope.set_payload(envelope.payload() + 'x');
    EXPECT_FALSE(IPCFraming::AppendFrame(stream, envelope));
    EXPECT_EQ(stream.size(), IPCFraming::kLengthBytes + IPCFraming::kMaxFrameBytes) << "nothing was appended";

    for (const std::uint32_t length : {std::uint32_t{IPCFraming::kMaxFrameBytes} + 1, 0xffffffffU})
    {
        FrameReader refuses;
        refuses.Append(Length(length)); // the length alone tells
        EXPECT_EQ(refuses.Next(read), FrameReader::FAULT);
        EXPECT_EQ(refuses.Fault(), "a frame of " + std::to_string(length) + " bytes");
        refuses.Append(Frame(Request()));
        EXPECT_EQ(refuses.Next(read), FrameReader::FAULT) << "for good";
    }
}

TEST(IPCFramingTest, WhatIsNoEnvelopeIsAFault)
{
    for (const std::string& body : {std::string("x"), std::string("\x32\x7f", 2), std::string("\x18"),
                                    std::string(1, 0), std::string("\x12\xff\xff\xff\xff\x0f", 6)})
    {
        FrameReader reader;
        IPCMessageEnvelope envelope;
        reader.Append(Length(static_cast<std::uint32_t>(body.size())) + body);
        EXPECT_EQ(reader.Next(envelope), FrameReader::FAULT);
        EXPECT_EQ(reader.Fault(), "a frame that is no envelope");
    }
}
