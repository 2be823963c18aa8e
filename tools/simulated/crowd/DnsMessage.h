#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// As much of DNS messages as an mDNS responder of one service type needs. Values; nothing here keeps state.
namespace Dns
{

enum Type : std::uint16_t
{
    A = 1,
    PTR = 12,
    TXT = 16,
    SRV = 33,
    ANY = 255,
};

/// A domain name as on the wire, without the root: each label behind a byte with its length.
using Name = std::string;

/// Labels of 1 to 63 bytes; a longer one is cut.
Name MakeName(const std::vector<std::string>& labels);
/// For comparing: ASCII letters in small.
Name Lowered(Name name);

struct Question
{
    Name name; ///< lowered
    std::uint16_t type = 0;
};

/// A record that the asker knows already.
struct KnownAnswer
{
    Name name; ///< lowered
    std::uint16_t type = 0;
    std::uint32_t ttl = 0;
    Name target; ///< of a PTR, lowered
};

struct Query
{
    bool isTruncated = false; ///< more known answers follow in another message
    std::vector<Question> questions;
    std::vector<KnownAnswer> knownAnswers;
};

/// Nothing where the bytes are no query or don't hold what they promise. Linear in `size`: a name's pointers lead
/// backwards only, and a name has 255 bytes at most.
std::optional<Query> ParseQuery(const std::uint8_t* bytes, std::size_t size);

/// One response of records under names that repeat; repetitions become pointers. Answers come before additionals.
class ResponseWriter
{
public:
    enum class Section
    {
        ANSWER,
        ADDITIONAL,
    };

    ResponseWriter();

    void AddPtr(Section section, const Name& name, std::uint32_t ttl, const Name& target);
    void AddSrv(Section section, const Name& name, std::uint32_t ttl, std::uint16_t port, const Name& host);
    void AddTxt(Section section, const Name& name, std::uint32_t ttl, const std::string& strings);
    void AddAddress(Section section, const Name& name, std::uint32_t ttl, std::uint32_t ipv4); ///< host byte order

    const std::vector<std::uint8_t>& Bytes() const
    {
        return m_bytes;
    }

private:
    std::size_t BeginRecord(Section section, const Name& name, Type type, bool isUnique, std::uint32_t ttl);
    void EndRecord(std::size_t dataBegin);
    void PutName(const Name& name);
    void Put16(std::uint32_t value);
    void Put32(std::uint32_t value);

    std::vector<std::uint8_t> m_bytes;
    std::vector<std::pair<Name, std::size_t>> m_written; ///< names and their ends, and where they stand
};

} // namespace Dns
