#include "tools/simulated/crowd/DnsMessage.h"

#include <gtest/gtest.h>

namespace
{

using Bytes = std::vector<std::uint8_t>;

Bytes FromText(const std::string& text)
{
    return {text.begin(), text.end()};
}

std::string Header(char flags, char questions, char answers)
{
    return std::string{0, 0, flags, 0, 0, questions, 0, answers, 0, 0, 0, 0};
}

const Dns::Name kType = Dns::MakeName({"_kova-lanyard", "_tcp", "local"});
const std::string kRoot(1, '\0');

/// A query with the type in capitals, a second name with a pointer into the first, and one known answer.
std::string WholeQuery()
{
    const std::string question =
        Dns::MakeName({"_KOVA-Lanyard", "_tcp", "LOCAL"}) + kRoot + std::string("\0\x0c\0\x01", 4);
    const std::string second = Dns::MakeName({"host"}) + std::string("\xc0\x1f\0\x01\x80\x01", 6); // local: 12 + 14 + 5
    const std::string data = Dns::MakeName({"Kitchen"}) + std::string("\xc0\x0c", 2);
    const std::string known = std::string("\xc0\x0c\0\x0c\0\x01\0\0\x08\xca\0", 11) + static_cast<char>(data.size());
    return Header(2, 2, 1) + question + second + known + data;
}

} // namespace

TEST(DnsMessage, QueryWithPointersAndKnownAnswersIsParsed)
{
    const Bytes bytes = FromText(WholeQuery());
    const auto query = Dns::ParseQuery(bytes.data(), bytes.size());
    ASSERT_TRUE(query);
    EXPECT_TRUE(query->isTruncated);
    ASSERT_EQ(query->questions.size(), 2U);
    EXPECT_EQ(query->questions[0].name, kType);
    EXPECT_EQ(query->questions[0].type, Dns::PTR);
    EXPECT_EQ(query->questions[1].name, Dns::MakeName({"host", "local"}));
    EXPECT_EQ(query->questions[1].type, Dns::A);
    ASSERT_EQ(query->knownAnswers.size(), 1U);
    EXPECT_EQ(query->knownAnswers[0].name, kType);
    EXPECT_EQ(query->knownAnswers[0].ttl, 2250U);
    EXPECT_EQ(query->knownAnswers[0].target, Dns::MakeName({"kitchen"}) + kType);
}

TEST(DnsMessage, MalformedQueryIsRejected)
{
    const Bytes whole = FromText(WholeQuery());
    for (std::size_t size = 0; size < whole.size(); ++size)
    {
        const Bytes cut(whole.begin(),
                        whole.begin() + static_cast<std::ptrdiff_t>(
                                            size)); // exact size, so that sanitizers detect a read past the end
        EXPECT_FALSE(Dns::ParseQuery(cut.data(), cut.size())) << size;
    }
    const auto isQuery = [](const std::string& text)
    { return Dns::ParseQuery(FromText(text).data(), text.size()).has_value(); };
    const std::string tail("\0\x0c\0\x01", 4);
    EXPECT_FALSE(isQuery(Header('\x84', 0, 0))) << "a response";
    EXPECT_FALSE(isQuery(Header(0, 1, 0) + "\xc0\x0c" + tail)) << "a pointer to itself";
    EXPECT_FALSE(isQuery(Header(0, 1, 0) + "\x01x\xc0\x0c" + tail)) << "a pointer loop";
    EXPECT_FALSE(isQuery(Header(0, 1, 0) + "\xc0\x20" + tail + std::string(40, '\0'))) << "a pointer ahead";
    EXPECT_FALSE(isQuery(Header(0, 1, 0) + '\x40' + std::string(70, 'x') + tail)) << "a label of unknown kind";
    std::string tooLong;
    for (int label = 0; label < 5; ++label)
    {
        tooLong += Dns::MakeName({std::string(63, 'x')});
    }
    EXPECT_FALSE(isQuery(Header(0, 1, 0) + tooLong + kRoot + tail));
}
