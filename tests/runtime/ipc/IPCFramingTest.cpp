#include "runtime/ipc/IPCFraming.h"
#include "runtime/ipc/IPCMessageEnvelope.h"
#include "tests/ipc/support/SocketClient.h"

#include <gtest/gtest.h>

#include <string>

using IPCFraming::FrameReader;

namespace
{

std::string Length(std::uint32_t length)
{
    return {static_cast<char>(length >> 24U), static_cast<char>(length >> 16U), static_cast<char>(length >> 8U),
            static_cast<char>(length)};
}

} // namespace

/// Clients in other languages depend on these bytes.
TEST(IPCFramingTest, FramesHaveFixedBytesAndMayBeCutAnywhere)
{
    IPCMessageEnvelope envelope;
    envelope->set_metadata("m");
    envelope->set_payload_type("V");
    envelope->set_id(3);
    envelope->set_tid(300);
    envelope->set_kind(IPCMessageEnvelopeBase::REJECT);
    envelope->set_payload("xy");
    const std::string frame = SocketClient::Frame(envelope);
    EXPECT_EQ(frame, std::string("\0\0\0\x11"
                                 "\x0a\x01m"
                                 "\x12\x01V"
                                 "\x18\x03"
                                 "\x20\xac\x02"
                                 "\x28\x03"
                                 "\x32\x02xy",
                                 4 + 3 + 3 + 2 + 3 + 2 + 4));

    // An empty frame is an envelope without fields.
    const std::string stream = frame + frame + Length(0) + frame;
    for (std::size_t cut = 0; cut <= stream.size(); ++cut)
    {
        FrameReader reader;
        std::string again;
        for (const std::string& piece : {stream.substr(0, cut), stream.substr(cut)})
        {
            reader.Append(piece);
            while (reader.Next(envelope) == FrameReader::ENVELOPE)
            {
                again += SocketClient::Frame(envelope);
            }
        }
        ASSERT_EQ(again, frame + frame + SocketClient::Frame({}) + frame) << cut;
    }
}

TEST(IPCFramingTest, FramesOverFourMiBAreNeitherWrittenNorRead)
{
    IPCMessageEnvelope envelope;
    std::string stream;
    constexpr std::size_t overhead = 1 + 4; // the payload's key and length
    envelope->set_payload(std::string(IPCFraming::kMaxFrameBytes - overhead, 'x'));
    ASSERT_TRUE(IPCFraming::AppendFrame(stream, envelope));
    ASSERT_EQ(stream.size(), IPCFraming::kLengthBytes + IPCFraming::kMaxFrameBytes);
    FrameReader reader;
    IPCMessageEnvelope read;
    reader.Append(stream);
    EXPECT_EQ(reader.Next(read), FrameReader::ENVELOPE);
    EXPECT_EQ(read->payload(), envelope->payload());

    envelope->set_payload(envelope->payload() + 'x');
    EXPECT_FALSE(IPCFraming::AppendFrame(stream, envelope));
    EXPECT_EQ(stream.size(), IPCFraming::kLengthBytes + IPCFraming::kMaxFrameBytes) << "nothing is appended";

    for (const std::uint32_t length : {std::uint32_t{IPCFraming::kMaxFrameBytes} + 1, 0xffffffffU})
    {
        FrameReader refuses;
        refuses.Append(Length(length)); // the length alone is a fault
        EXPECT_EQ(refuses.Next(read), FrameReader::FAULT);
        EXPECT_EQ(refuses.Fault(), "a frame of " + std::to_string(length) + " bytes");
        refuses.Append(Length(0));
        EXPECT_EQ(refuses.Next(read), FrameReader::FAULT) << "a fault is permanent";
    }
}
