#include "tools/simulated/crowd/MdnsResponder.h"

#include "runtime/MonotonicClock.h"
#include "tools/simulated/Schedule.h"

#include <utility>

namespace
{

// RFC 6762 section 10: 75 minutes, and 120 s for records that contain the host name.
constexpr std::uint32_t kTtl = 4500;
constexpr std::uint32_t kHostTtl = 120;
constexpr unsigned int kAnnouncePauseMs = 1000;
constexpr int kAnnouncements = 2;
constexpr std::int64_t kSentPauseMs = 1000;
constexpr unsigned int kTruncatedLimitMs = 450;
constexpr std::size_t kMaxTruncated = 64; ///< queriers whose query continues; further ones get a response immediately
constexpr unsigned int kFullPauseMs = 5;  ///< before the next attempt if the send buffer was full

/// The responder's socket: 224.0.0.251:5353, only queries. The QR bit is the top bit of the third byte.
constexpr MulticastSocket::Settings kMdns{{0xE00000FB, 5353}, 255, {2, 0x80, 0}};

} // namespace

MdnsResponder::MdnsResponder(NotifyTargetTaskIF* task, Schedule& schedule, Settings settings)
    : m_schedule(schedule)
    , m_settings(std::move(settings))
    , m_type(Dns::MakeName({"_kova-lanyard", "_tcp", "local"}))
    , m_random(m_settings.seed)
    , m_socket(task, kMdns,
               [this](const std::uint8_t* bytes, std::size_t size, const Endpoint& sender)
               { HandleDatagram(bytes, size, sender); })
{
}

bool MdnsResponder::Open(std::string& error)
{
    return m_socket.Open(m_settings.interface, error);
}

// ---- products -----------------------------------------------------------------------------------------------

void MdnsResponder::Add(const Identity& identity)
{
    Product product;
    product.host = Dns::MakeName({identity.guid, "local"});
    product.txt = TxtStrings(identity);
    product.ipv4 = identity.ipv4;
    m_byHost[Dns::Lowered(product.host)] = m_products.size();
    m_products.push_back(std::move(product));
    Rename(m_products.size() - 1, identity.name);
}

void MdnsResponder::Announce(std::size_t product, unsigned int afterMs)
{
    m_products[product].isSilent = false;
    PlanAnnouncement(product, afterMs, kAnnouncements);
}

void MdnsResponder::PlanAnnouncement(std::size_t product, unsigned int afterMs, int more)
{
    m_schedule.In(afterMs,
                  [this, product, more, silences = m_products[product].silences]
                  {
                      if (silences != m_products[product].silences)
                      {
                          return;
                      }
                      const bool isSent = SendRecords(product, ALL_RECORDS, false);
                      const int left = isSent ? more - 1 : more;
                      if (left > 0)
                      {
                          PlanAnnouncement(product, isSent ? kAnnouncePauseMs : kFullPauseMs, left);
                      }
                  });
}

void MdnsResponder::Silence(std::size_t product)
{
    Product& silenced = m_products[product];
    silenced.isSilent = true;
    silenced.pending = 0;
    silenced.sentMs = {};
    ++silenced.silences;
}

void MdnsResponder::SayGoodbye(std::size_t product, std::function<void()> gone)
{
    m_schedule.In(m_products[product].isSilent ? 0 : NextDelay(),
                  [this, product, gone = std::move(gone)]
                  {
                      if (!m_products[product].isSilent)
                      {
                          SendRecords(product, ALL_RECORDS, true);
                          Silence(product);
                      }
                      gone();
                  });
}

void MdnsResponder::Rename(std::size_t product, const std::string& name)
{
    Product& renamed = m_products[product];
    m_byInstance.erase(Dns::Lowered(renamed.instance));
    renamed.instance = Dns::MakeName({name}) + m_type;
    m_byInstance[Dns::Lowered(renamed.instance)] = product;
}

// ---- queries ------------------------------------------------------------------------------------------------

void MdnsResponder::HandleDatagram(const std::uint8_t* bytes, std::size_t size, const Endpoint& sender)
{
    const std::optional<Dns::Query> query = Dns::ParseQuery(bytes, size);
    if (!query)
    {
        return;
    }
    ++m_counts.queries;
    Inquiry inquiry;
    if (const auto before = m_truncated.find(sender); before != m_truncated.end())
    {
        inquiry = std::move(before->second);
        m_truncated.erase(before);
    }
    Gather(*query, inquiry);
    if (!query->isTruncated || m_truncated.size() >= kMaxTruncated)
    {
        Answer(inquiry);
        return;
    }
    const std::uint64_t number = inquiry.number = ++m_truncatedCount;
    m_truncated[sender] = std::move(inquiry);
    m_schedule.In(kTruncatedLimitMs,
                  [this, sender, number]
                  {
                      const auto found = m_truncated.find(sender);
                      if (found != m_truncated.end() && found->second.number == number)
                      {
                          const Inquiry whole = std::move(found->second);
                          m_truncated.erase(found);
                          Answer(whole);
                      }
                  });
}

void MdnsResponder::Gather(const Dns::Query& query, Inquiry& inquiry) const
{
    inquiry.wanted.resize(m_products.size());
    inquiry.known.resize(m_products.size());
    for (const Dns::Question& question : query.questions)
    {
        AddWanted(question, inquiry);
    }
    for (const Dns::KnownAnswer& answer : query.knownAnswers)
    {
        AddKnown(answer, inquiry);
    }
}

void MdnsResponder::AddWanted(const Dns::Question& question, Inquiry& inquiry) const
{
    const auto want = [&inquiry, &question](std::size_t product, std::uint16_t type, Records record)
    {
        if (question.type == type || question.type == Dns::ANY)
        {
            inquiry.wanted[product] |= record;
        }
    };
    if (question.name == m_type)
    {
        for (std::size_t product = 0; product < m_products.size(); ++product)
        {
            want(product, Dns::PTR, PTR_RECORD);
        }
    }
    else if (const auto instance = m_byInstance.find(question.name); instance != m_byInstance.end())
    {
        want(instance->second, Dns::SRV, SRV_RECORD);
        want(instance->second, Dns::TXT, TXT_RECORD);
    }
    else if (const auto host = m_byHost.find(question.name); host != m_byHost.end())
    {
        want(host->second, Dns::A, ADDRESS_RECORD);
    }
}

void MdnsResponder::AddKnown(const Dns::KnownAnswer& answer, Inquiry& inquiry) const
{
    // SRV, TXT and A records of a name never change here, so name and type identify them.
    const auto know = [&inquiry, &answer](std::size_t product, std::uint16_t type, Records record, std::uint32_t ttl)
    {
        if (answer.type == type && answer.ttl >= ttl / 2)
        {
            inquiry.known[product] |= record;
        }
    };
    const Dns::Name& name = answer.type == Dns::PTR && answer.name == m_type ? answer.target : answer.name;
    if (const auto instance = m_byInstance.find(name); instance != m_byInstance.end())
    {
        know(instance->second, Dns::PTR, PTR_RECORD, kTtl);
        know(instance->second, Dns::SRV, SRV_RECORD, kHostTtl);
        know(instance->second, Dns::TXT, TXT_RECORD, kTtl);
    }
    else if (const auto host = m_byHost.find(name); host != m_byHost.end())
    {
        know(host->second, Dns::A, ADDRESS_RECORD, kHostTtl);
    }
}

// ---- answers ------------------------------------------------------------------------------------------------

void MdnsResponder::Answer(const Inquiry& inquiry)
{
    for (std::size_t product = 0; product < m_products.size(); ++product)
    {
        const auto records = static_cast<Records>(inquiry.wanted[product] & ~inquiry.known[product]);
        if (records != 0 && !m_products[product].isSilent)
        {
            PlanAnswer(product, records);
        }
    }
}

void MdnsResponder::PlanAnswer(std::size_t product, Records records)
{
    Product& responding = m_products[product];
    const std::int64_t now = MonotonicClock::NowMs();
    for (std::size_t bit = 0; bit < responding.sentMs.size(); ++bit)
    {
        const bool isJustSent = responding.sentMs[bit] != 0 && now - responding.sentMs[bit] < kSentPauseMs;
        records = static_cast<Records>(isJustSent ? records & ~(1U << bit) : records);
    }
    const bool isPlanned = responding.pending != 0;
    responding.pending |= records;
    if (responding.pending != 0 && !isPlanned)
    {
        m_schedule.In(NextDelay(),
                      [this, product, silences = responding.silences]
                      {
                          if (silences == m_products[product].silences)
                          {
                              SendPending(product);
                          }
                      });
    }
}

void MdnsResponder::SendPending(std::size_t product)
{
    const Records records = std::exchange(m_products[product].pending, Records{0});
    if (!SendRecords(product, records, false))
    {
        PlanAnswer(product, records);
    }
}

bool MdnsResponder::SendRecords(std::size_t product, Records records, bool isGoodbye)
{
    using Section = Dns::ResponseWriter::Section;
    Product& sender = m_products[product];
    const std::uint32_t ttl = isGoodbye ? 0 : kTtl;
    const std::uint32_t hostTtl = isGoodbye ? 0 : kHostTtl;
    // RFC 6763 section 12: a response contains as additional records what the querier needs next.
    const unsigned int rest = (records & PTR_RECORD) != 0   ? ALL_RECORDS & ~records
                              : (records & SRV_RECORD) != 0 ? ADDRESS_RECORD & ~records
                                                            : 0U;
    Dns::ResponseWriter writer;
    for (const auto& [wanted, section] :
         {std::pair{static_cast<unsigned int>(records), Section::ANSWER}, std::pair{rest, Section::ADDITIONAL}})
    {
        if ((wanted & PTR_RECORD) != 0)
        {
            writer.AddPtr(section, m_type, ttl, sender.instance);
        }
        if ((wanted & SRV_RECORD) != 0)
        {
            writer.AddSrv(section, sender.instance, hostTtl, m_settings.port, sender.host);
        }
        if ((wanted & TXT_RECORD) != 0)
        {
            writer.AddTxt(section, sender.instance, ttl, sender.txt);
        }
        if ((wanted & ADDRESS_RECORD) != 0)
        {
            writer.AddAddress(section, sender.host, hostTtl, sender.ipv4);
        }
    }
    if (!m_socket.Send(writer.Bytes(), sender.ipv4))
    {
        return false;
    }
    ++m_counts.packets;
    const std::int64_t now = MonotonicClock::NowMs();
    for (std::size_t bit = 0; bit < sender.sentMs.size(); ++bit)
    {
        if (((records | rest) & 1U << bit) != 0)
        {
            sender.sentMs[bit] = now;
        }
    }
    return true;
}

unsigned int MdnsResponder::NextDelay()
{
    return m_settings.minDelayMs +
           static_cast<unsigned int>(m_random.Below(m_settings.maxDelayMs - m_settings.minDelayMs + 1));
}
