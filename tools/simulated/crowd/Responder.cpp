#include "tools/simulated/crowd/Responder.h"

#include "runtime/MonotonicClock.h"
#include "tools/simulated/Schedule.h"

#include <utility>

namespace
{

// As RFC 6762 has them: what names a host lives shorter than the rest.
constexpr std::uint32_t kTtl = 4500;
constexpr std::uint32_t kHostTtl = 120;
constexpr unsigned int kAnnouncePauseMs = 1000;
constexpr int kAnnouncements = 2;
constexpr std::int64_t kSentPauseMs = 1000;
constexpr unsigned int kTruncatedLimitMs = 450;
constexpr std::size_t kMaxTruncated = 64; ///< askers with more to come; further ones are answered at once
constexpr unsigned int kFullPauseMs = 5;  ///< before a packet that the kernel had no room for is tried again

/// 224.0.0.251:5353, without the responses of others: their flag is the top bit of the third byte.
constexpr MulticastSocket::Settings kMdns{{0xE00000FB, 5353}, 255, {2, 0x80, 0}};

} // namespace

Responder::Responder(NotifyTargetTaskIF* task, Schedule& schedule, Settings settings)
    : m_schedule(schedule)
    , m_settings(std::move(settings))
    , m_type(Dns::MakeName({"_kova-lanyard", "_tcp", "local"}))
    , m_random(m_settings.seed)
    , m_socket(task, kMdns,
               [this](const std::uint8_t* bytes, std::size_t size, const Endpoint& sender)
               { HandleDatagram(bytes, size, sender); })
{
}

bool Responder::Open(std::string& error)
{
    return m_socket.Open(m_settings.interface, error);
}

// ---- products -----------------------------------------------------------------------------------------------

void Responder::Add(const Identity& identity)
{
    Product product;
    product.host = Dns::MakeName({identity.guid, "local"});
    product.txt = TxtStrings(identity);
    product.ipv4 = identity.ipv4;
    m_byHost[Dns::Lowered(product.host)] = m_products.size();
    m_products.push_back(std::move(product));
    Rename(m_products.size() - 1, identity.name);
}

void Responder::Announce(std::size_t product, unsigned int afterMs)
{
    m_products[product].isSilent = false;
    PlanAnnouncement(product, afterMs, kAnnouncements);
}

void Responder::PlanAnnouncement(std::size_t product, unsigned int afterMs, int more)
{
    m_schedule.In(afterMs,
                  [this, product, more, life = m_products[product].life]
                  {
                      if (life != m_products[product].life)
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

void Responder::Silence(std::size_t product)
{
    Product& silenced = m_products[product];
    silenced.isSilent = true;
    silenced.pending = 0;
    silenced.sentMs = {};
    ++silenced.life;
}

void Responder::SayGoodbye(std::size_t product, std::function<void()> gone)
{
    m_schedule.In(m_products[product].isSilent ? 0 : OwnDelay(),
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

void Responder::Rename(std::size_t product, const std::string& name)
{
    Product& renamed = m_products[product];
    m_byInstance.erase(Dns::Lowered(renamed.instance));
    renamed.instance = Dns::MakeName({name}) + m_type;
    m_byInstance[Dns::Lowered(renamed.instance)] = product;
}

// ---- queries ------------------------------------------------------------------------------------------------

void Responder::HandleDatagram(const std::uint8_t* bytes, std::size_t size, const Endpoint& sender)
{
    const std::optional<Dns::Query> query = Dns::ParseQuery(bytes, size);
    if (!query)
    {
        return;
    }
    ++m_counts.queries;
    Asked asked;
    if (const auto before = m_truncated.find(sender); before != m_truncated.end())
    {
        asked = std::move(before->second);
        m_truncated.erase(before);
    }
    Gather(*query, asked);
    if (!query->isTruncated || m_truncated.size() >= kMaxTruncated)
    {
        Answer(asked);
        return;
    }
    const std::uint64_t number = asked.number = ++m_truncatedCount;
    m_truncated[sender] = std::move(asked);
    m_schedule.In(kTruncatedLimitMs,
                  [this, sender, number]
                  {
                      const auto found = m_truncated.find(sender);
                      if (found != m_truncated.end() && found->second.number == number)
                      {
                          const Asked whole = std::move(found->second);
                          m_truncated.erase(found);
                          Answer(whole);
                      }
                  });
}

void Responder::Gather(const Dns::Query& query, Asked& asked) const
{
    asked.wanted.resize(m_products.size());
    asked.known.resize(m_products.size());
    for (const Dns::Question& question : query.questions)
    {
        Want(question, asked);
    }
    for (const Dns::KnownAnswer& answer : query.knownAnswers)
    {
        Know(answer, asked);
    }
}

void Responder::Want(const Dns::Question& question, Asked& asked) const
{
    const auto want = [&asked, &question](std::size_t product, std::uint16_t type, Records record)
    {
        if (question.type == type || question.type == Dns::ANY)
        {
            asked.wanted[product] |= record;
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

void Responder::Know(const Dns::KnownAnswer& answer, Asked& asked) const
{
    // The data of a name's SRV, TXT and A never changes here, so that their names alone tell which they are.
    const auto know = [&asked, &answer](std::size_t product, std::uint16_t type, Records record, std::uint32_t ttl)
    {
        if (answer.type == type && answer.ttl >= ttl / 2)
        {
            asked.known[product] |= record;
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

void Responder::Answer(const Asked& asked)
{
    for (std::size_t product = 0; product < m_products.size(); ++product)
    {
        const auto records = static_cast<Records>(asked.wanted[product] & ~asked.known[product]);
        if (records != 0 && !m_products[product].isSilent)
        {
            PlanAnswer(product, records);
        }
    }
}

void Responder::PlanAnswer(std::size_t product, Records records)
{
    Product& asked = m_products[product];
    const std::int64_t now = MonotonicClock::NowMs();
    for (std::size_t bit = 0; bit < asked.sentMs.size(); ++bit)
    {
        const bool isJustSent = asked.sentMs[bit] != 0 && now - asked.sentMs[bit] < kSentPauseMs;
        records = static_cast<Records>(isJustSent ? records & ~(1U << bit) : records);
    }
    const bool isPlanned = asked.pending != 0;
    asked.pending |= records;
    if (asked.pending != 0 && !isPlanned)
    {
        m_schedule.In(OwnDelay(),
                      [this, product, life = asked.life]
                      {
                          if (life == m_products[product].life)
                          {
                              SendPending(product);
                          }
                      });
    }
}

void Responder::SendPending(std::size_t product)
{
    const Records records = std::exchange(m_products[product].pending, Records{0});
    if (!SendRecords(product, records, false))
    {
        PlanAnswer(product, records);
    }
}

bool Responder::SendRecords(std::size_t product, Records records, bool isGoodbye)
{
    using Section = Dns::ResponseWriter::Section;
    Product& sender = m_products[product];
    const std::uint32_t ttl = isGoodbye ? 0 : kTtl;
    const std::uint32_t hostTtl = isGoodbye ? 0 : kHostTtl;
    // Who asks for the product will ask for where it is next.
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

unsigned int Responder::OwnDelay()
{
    return m_settings.minDelayMs +
           static_cast<unsigned int>(m_random.Below(m_settings.maxDelayMs - m_settings.minDelayMs + 1));
}
