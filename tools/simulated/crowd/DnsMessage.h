#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The part of the DNS message format (RFC 1035, RFC 6762) that an mDNS responder of one service type needs. Stateless.
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

/// A domain name in wire form without the root label: each label follows a byte with its length.
using Name = std::string;

/// Truncates labels to 63 bytes.
Name MakeName(const std::vector<std::string>& labels);
/// Converts ASCII letters to lower case, for comparisons.
Name Lowered(Name name);

struct Question
{
    Name name; ///< lower case
    std::uint16_t type = 0;
};

/// A record that the querier already has (RFC 6762 section 7.1).
struct KnownAnswer
{
    Name name; ///< lower case
    std::uint16_t type = 0;
    std::uint32_t ttl = 0;
    Name target; ///< of a PTR record, lower case
};

struct Query
{
    bool isTruncated = false; ///< TC bit: more known answers follow in another message
    std::vector<Question> questions;
    std::vector<KnownAnswer> knownAnswers;
};

/// Returns nothing if the bytes are not a complete query. Linear in `size`: compression pointers must point backwards,
/// and a name has at most 255 bytes.
std::optional<Query> ParseQuery(const std::uint8_t* bytes, std::size_t size);

/// Writes one response with name compression. Answers must be added before additional records.
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
    std::vector<std::pair<Name, std::size_t>> m_written; ///< names and suffixes of names, and their offsets
};

} // namespace Dns
