#include "tools/simulated/crowd/DnsMessage.h"

#include <algorithm>

namespace Dns
{
namespace
{

constexpr std::size_t kHeaderBytes = 12;
constexpr std::size_t kMaxLabelBytes = 63;
constexpr std::size_t kMaxNameBytes = 255;
constexpr std::uint8_t kResponseFlag = 0x80;
constexpr std::uint8_t kAuthoritativeFlag = 0x04;
constexpr std::uint8_t kTruncatedFlag = 0x02;
constexpr std::uint8_t kPointerBits = 0xC0;
constexpr std::uint16_t kInternetClass = 1;
constexpr std::uint16_t kCacheFlush =
    0x8000; ///< RFC 6762 section 10.2: the record replaces others of its name and type

/// Sequential reader. After the first read past the end IsGood() is false and all reads return 0.
class Reader
{
public:
    Reader(const std::uint8_t* bytes, std::size_t size, std::size_t position)
        : m_bytes(bytes)
        , m_size(size)
        , m_position(position)
    {
    }

    bool IsGood() const
    {
        return m_isGood;
    }
    std::size_t Position() const
    {
        return m_position;
    }
    Reader At(std::size_t position) const
    {
        return {m_bytes, m_size, position};
    }

    std::uint8_t Get8()
    {
        if (m_position >= m_size)
        {
            m_isGood = false;
            return 0;
        }
        return m_bytes[m_position++];
    }
    std::uint16_t Get16()
    {
        const unsigned high = Get8();
        return static_cast<std::uint16_t>(high << 8U | Get8());
    }
    std::uint32_t Get32()
    {
        const std::uint32_t high = Get16();
        return high << 16U | Get16();
    }
    void Skip(std::size_t count)
    {
        m_isGood = m_isGood && count <= m_size - m_position;
        m_position += m_isGood ? count : 0;
    }

    /// Returns the name in lower case.
    Name GetName()
    {
        Name name;
        std::size_t end = 0; // position after the first pointer; 0: no pointer yet
        while (m_isGood && name.size() <= kMaxNameBytes)
        {
            const std::size_t begin = m_position;
            const std::uint8_t length = Get8();
            if (length == 0)
            {
                break;
            }
            if ((length & kPointerBits) == kPointerBits)
            {
                const std::size_t target = (static_cast<std::size_t>(length & ~kPointerBits) << 8U) | Get8();
                end = end == 0 ? m_position : end;
                m_isGood = m_isGood && target < std::min(begin, m_lowestPointer);
                m_lowestPointer = target;
                m_position = m_isGood ? target : m_position;
                continue;
            }
            m_isGood = m_isGood && length <= kMaxLabelBytes && length <= m_size - m_position;
            if (m_isGood)
            {
                name.append(reinterpret_cast<const char*>(m_bytes + begin), length + 1U);
                m_position += length;
            }
        }
        m_isGood = m_isGood && name.size() <= kMaxNameBytes;
        m_position = end == 0 ? m_position : end;
        m_lowestPointer = m_size;
        return Lowered(std::move(name));
    }

private:
    const std::uint8_t* m_bytes;
    std::size_t m_size;
    std::size_t m_position;
    std::size_t m_lowestPointer = m_size; ///< of the current name: each pointer must point before the last one
    bool m_isGood = true;
};

KnownAnswer ReadKnownAnswer(Reader& reader)
{
    KnownAnswer known;
    known.name = reader.GetName();
    known.type = reader.Get16();
    reader.Get16();
    known.ttl = reader.Get32();
    const std::size_t length = reader.Get16();
    const std::size_t begin = reader.Position();
    reader.Skip(length);
    if (known.type == PTR && reader.IsGood())
    {
        Reader data = reader.At(begin);
        known.target = data.GetName();
    }
    return known;
}

} // namespace

Name MakeName(const std::vector<std::string>& labels)
{
    Name name;
    for (const std::string& label : labels)
    {
        const std::string cut = label.substr(0, kMaxLabelBytes);
        name += static_cast<char>(cut.size());
        name += cut;
    }
    return name;
}

Name Lowered(Name name)
{
    // Length bytes are below 64 and letters above, so the conversion changes no length byte.
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char byte) { return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte; });
    return name;
}

std::optional<Query> ParseQuery(const std::uint8_t* bytes, std::size_t size)
{
    if (size < kHeaderBytes || (bytes[2] & kResponseFlag) != 0)
    {
        return std::nullopt;
    }
    Query query;
    query.isTruncated = (bytes[2] & kTruncatedFlag) != 0;
    Reader reader(bytes, size, 4);
    const std::uint16_t questions = reader.Get16();
    const std::uint16_t answers = reader.Get16();
    reader.Get32(); // skips the counts of authority and additional records
    for (unsigned index = 0; index < questions && reader.IsGood(); ++index)
    {
        Question question;
        question.name = reader.GetName();
        question.type = reader.Get16();
        reader.Get16();
        query.questions.push_back(std::move(question));
    }
    for (unsigned index = 0; index < answers && reader.IsGood(); ++index)
    {
        query.knownAnswers.push_back(ReadKnownAnswer(reader));
    }
    return reader.IsGood() ? std::make_optional(std::move(query)) : std::nullopt;
}

ResponseWriter::ResponseWriter()
    : m_bytes(kHeaderBytes, 0)
{
    m_bytes.reserve(1024);
    m_bytes[2] = kResponseFlag | kAuthoritativeFlag;
}

void ResponseWriter::AddPtr(Section section, const Name& name, std::uint32_t ttl, const Name& target)
{
    const std::size_t begin = BeginRecord(section, name, PTR, false, ttl);
    PutName(target);
    EndRecord(begin);
}

void ResponseWriter::AddSrv(Section section, const Name& name, std::uint32_t ttl, std::uint16_t port, const Name& host)
{
    const std::size_t begin = BeginRecord(section, name, SRV, true, ttl);
    Put32(0); // priority, weight
    Put16(port);
    PutName(host);
    EndRecord(begin);
}

void ResponseWriter::AddTxt(Section section, const Name& name, std::uint32_t ttl, const std::string& strings)
{
    const std::size_t begin = BeginRecord(section, name, TXT, true, ttl);
    m_bytes.insert(m_bytes.end(), strings.begin(), strings.end());
    EndRecord(begin);
}

void ResponseWriter::AddAddress(Section section, const Name& name, std::uint32_t ttl, std::uint32_t ipv4)
{
    const std::size_t begin = BeginRecord(section, name, A, true, ttl);
    Put32(ipv4);
    EndRecord(begin);
}

std::size_t ResponseWriter::BeginRecord(Section section, const Name& name, Type type, bool isUnique, std::uint32_t ttl)
{
    ++m_bytes[section == Section::ANSWER ? 7 : 11]; // low byte of the section's count; there are never more than 255
    PutName(name);
    Put16(type);
    Put16(isUnique ? kInternetClass | kCacheFlush : kInternetClass);
    Put32(ttl);
    Put16(0);
    return m_bytes.size();
}

void ResponseWriter::EndRecord(std::size_t dataBegin)
{
    const std::size_t length = m_bytes.size() - dataBegin;
    m_bytes[dataBegin - 2] = static_cast<std::uint8_t>(length >> 8U);
    m_bytes[dataBegin - 1] = static_cast<std::uint8_t>(length);
}

void ResponseWriter::PutName(const Name& name)
{
    for (std::size_t position = 0; position < name.size();)
    {
        const Name rest = name.substr(position);
        const auto found = std::find_if(m_written.begin(), m_written.end(),
                                        [&rest](const auto& written) { return written.first == rest; });
        if (found != m_written.end())
        {
            Put16(static_cast<std::uint32_t>(kPointerBits << 8U | found->second));
            return;
        }
        m_written.emplace_back(rest, m_bytes.size());
        const std::size_t length = 1U + static_cast<unsigned char>(name[position]);
        m_bytes.insert(m_bytes.end(), rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(length));
        position += length;
    }
    m_bytes.push_back(0);
}

void ResponseWriter::Put16(std::uint32_t value)
{
    m_bytes.push_back(static_cast<std::uint8_t>(value >> 8U));
    m_bytes.push_back(static_cast<std::uint8_t>(value));
}

void ResponseWriter::Put32(std::uint32_t value)
{
    Put16(value >> 16U);
    Put16(value);
}

} // namespace Dns
