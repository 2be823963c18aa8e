#include "ssdp/SsdpDeviceParser.h"

#include "runtime/Task.h"
#include "runtime/engine/Simulation.h"
#include "schemas/Sonarix.pb.h"
#include "tests/fakes/FakeHttp.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RealTask.h"
#include "tests/support/Watched.h"

#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

using namespace SonarixService;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

Sonarix::ProductInfo InfoOf(const std::string& guid)
{
    Sonarix::ProductInfo info;
    info.set_guid(guid);
    return info;
}

std::string Repeat(const std::string& text, int times)
{
    std::string result;
    for (int i = 0; i < times; ++i)
    {
        result += text;
    }
    return result;
}

std::string Device(const std::string& inside)
{
    return "<root><device>" + inside + "</device></root>";
}

struct SsdpDeviceParserTest : testing::Test
{
    ~SsdpDeviceParserTest() override
    {
        IL::StopTask(task);
        simulation.RunUntilIdle();
    }
    void Parse(const std::string& host, const std::string& guid = "")
    {
        const std::string location = "http://" + host + "/" + (guid.empty() ? "" : guid + ".xml");
        parser->ParseDevice(location, InfoOf(guid.empty() ? host : guid));
        simulation.RunUntilIdle();
    }
    void Answer(std::size_t number, int status, const std::string& body = "", int curlStatus = 0)
    {
        http.Answer(number, status, body, curlStatus);
        simulation.RunUntilIdle();
    }
    /// Parses `body` for `info`, and returns the name of the status.
    std::string Read(const std::string& body, Sonarix::ProductInfo info = InfoOf("Kitchen"))
    {
        parser->ParseDevice("http://10.0.0.2/", std::move(info));
        Answer(http.m_urls.size() - 1, 200, body);
        const std::vector<std::string> ended = Results();
        return ended.size() == 1 ? ended[0].substr(ended[0].find(' ') + 1) : "not one result";
    }
    std::vector<std::string> Results()
    {
        return std::exchange(results, {});
    }
    /// The hosts and paths requested since the last call.
    std::vector<std::string> Requested()
    {
        std::vector<std::string> hosts;
        for (; requested < http.m_urls.size(); ++requested)
        {
            hosts.push_back(http.m_urls[requested].substr(std::string("http://10.0.0.").size()));
        }
        return hosts;
    }

    IL::Simulation simulation{1};
    LogCapture log{"7"};
    FakeHttp http;
    NotifyTargetTaskIF* task = IL::CreateTask("SsdpDiscoveryTask", "");
    std::vector<std::string> results;
    Sonarix::ProductInfo last;
    std::size_t requested = 0;
    std::unique_ptr<SsdpDeviceParser> parser = std::make_unique<SsdpDeviceParser>(
        &http, task,
        [this](SsdpDeviceParser::ParseStatus status, const Sonarix::ProductInfo& info)
        {
            results.push_back(info.guid() + " " + Name(status));
            last = info;
        });
};

TEST_F(SsdpDeviceParserTest, DescriptionFillsTheRecord)
{
    EXPECT_THAT(http.m_settings, ElementsAre("retries 0", "timeout 5", "bytes 65536", "sleeping 4"));
    const std::string description = R"(<?xml version="1.0"?>
<root xmlns="urn:schemas-upnp-org:device-1-0" xmlns:kova="urn:x"><specVersion><major>1</major></specVersion>
<iconList><icon><url>/not/here.png</url></icon></iconList>
<device><deviceType>type</deviceType><presentationURL>http://p?a=1&amp;b=2</presentationURL>
<friendlyName>old</friendlyName><friendlyName>K&#252;che <!-- x --> &amp; <![CDATA[<Hall>]]></friendlyName>
<manufacturer>m</manufacturer><manufacturerURL>mu</manufacturerURL><modelDescription/><modelName>mn</modelName>
<modelNumber>7</modelNumber><modelURL>mo</modelURL><serialNumber>sn</serialNumber><UDN>uuid:other</UDN><UPC>upc</UPC>
<guid>no</guid><location>no</location><ipaddress>no</ipaddress><X_MAC>no</X_MAC><friendlyname>no</friendlyname>
<kova:X_MAC>00:11</kova:X_MAC><kova:X_ecoSystem>ORB2</kova:X_ecoSystem><kova:X_productType>t</kova:X_productType>
<kova:X_productColor>2</kova:X_productColor><kova:X_softwareVersion>3.1</kova:X_softwareVersion>
<kova:X_multiroomVersions>
<Audio_Payload_Version><major_version>1</major_version><minor_version>2</minor_version></Audio_Payload_Version>
<AudioControl_Protocol_Version><major_version>one</major_version></AudioControl_Protocol_Version>
<ClockSync_Protocol_Version><minor_version>2147483648</minor_version></ClockSync_Protocol_Version>
<NowPlaying_Version/><PlaybackRequest_Version><minor_version>2147483647</minor_version></PlaybackRequest_Version>
<Grouping_Version><major_version>6</major_version></Grouping_Version>
<ZoneControl_Version><major_version>9</major_version></ZoneControl_Version></kova:X_multiroomVersions>
<iconList><first/><icon><mimetype>image/png</mimetype><width>48</width><height>-1</height><depth>24</depth>
<url>/i.png</url></icon><other/></iconList>
<serviceList><service><serviceType>st</serviceType><serviceId>si</serviceId><SCPDURL>sc</SCPDURL>
<controlURL>co</controlURL><eventSubURL>ev</eventSubURL></service></serviceList></device></root>)";
    const std::string text = R"(guid: "Kitchen" location: "http://10.0.0.2/" devicetype: "type"
presentationurl: "http://p?a=1&b=2" friendlyname: "Küche&<Hall>" manufacturer: "m" manufacturerurl: "mu"
modeldescription: "" modelname: "mn" modelnumber: "7" modelurl: "mo" serialnumber: "sn" udn: "uuid:other" upc: "upc"
macaddress: "00:11" ecosystem: "ORB2" producttype: "t" productcolor: "2" softwareversion: "3.1"
multiroom { Audio_Payload_Version { major_version: 1 minor_version: 2 } AudioControl_Protocol_Version { major_version: 0 }
ClockSync_Protocol_Version { minor_version: 0 } NowPlaying_Version { }
PlaybackRequest_Version { minor_version: 2147483647 } Grouping_Version { major_version: 6 } })";
    const std::string rows = R"(icons { mimetype: "image/png" width: 48 height: 0 depth: 24 url: "/i.png" } icons { }
services { servicetype: "st" serviceid: "si" scpdurl: "sc" controlurl: "co" eventsuburl: "ev" })";
    Sonarix::ProductInfo expected;
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(text + rows, &expected));
    EXPECT_EQ(Read(description), "PARSE_SUCCESS") << log.Text();
    EXPECT_EQ(last.DebugString(), expected.DebugString());
}

TEST_F(SsdpDeviceParserTest, RowsAreAppendedUpToALimit)
{
    const std::string rows = Device("<iconList><icon/><icon/></iconList><serviceList><service/></serviceList>");
    EXPECT_EQ(Read(rows), "PARSE_SUCCESS");
    for (int round = 1; round < 128; ++round)
    {
        ASSERT_EQ(Read(rows, last), "PARSE_SUCCESS");
        ASSERT_EQ(last.icons_size(), 2 * last.services_size());
    }
    EXPECT_EQ(last.icons_size(), 256);
    EXPECT_EQ(Read(rows, last), "PARSE_XML_ERROR");
    EXPECT_TRUE(log.Contains("the description at 'http://10.0.0.2/' of 'Kitchen' is not taken: "));

    // The size of the record is limited, too.
    const std::string longRow = Device("<iconList><icon><url>" + std::string(60'000, 'x') + "</url></icon></iconList>");
    EXPECT_EQ(Read(longRow), "PARSE_SUCCESS");
    EXPECT_EQ(Read(longRow, last), "PARSE_SUCCESS");
    EXPECT_EQ(Read(longRow, last), "PARSE_XML_ERROR");
}

struct XmlCase
{
    std::string body;
    std::string status;
    std::string line; ///< of the log
};

const std::string kGood = "PARSE_SUCCESS";
const std::string kBad = "PARSE_XML_ERROR";
const std::string kNotParsed = "Error parsing XML data.";

struct XmlTest : SsdpDeviceParserTest
{
    void Expect(const std::vector<XmlCase>& cases)
    {
        for (const XmlCase& one : cases)
        {
            log.Clear();
            simulation.RunFor(1min); // a reason is logged once in that time
            EXPECT_EQ(Read(one.body), one.status) << one.body.substr(0, 80) << '\n' << log.Text();
            EXPECT_TRUE(log.Contains(one.line)) << one.body.substr(0, 80) << '\n' << log.Text();
            if (one.status == kBad)
            {
                EXPECT_TRUE(log.Contains(kNotParsed));
                EXPECT_TRUE(log.Contains("the description at 'http://10.0.0.2/' of 'Kitchen' is not parsed: "));
                EXPECT_EQ(last.DebugString(), "guid: \"Kitchen\"\nlocation: \"http://10.0.0.2/\"\n");
            }
        }
    }
};

TEST_F(XmlTest, OnlyWellFormedXmlIsASuccess)
{
    const std::string noDevice = "Unable to find 'device' element in XML.";
    Expect({
        {"<scpd/>", kGood, noDevice},
        {"<root><Device/></root>", kGood, noDevice},
        {"\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n" + Device(""), kGood, ""},
        {Device("<friendlyName>\xC3\xBC</friendlyName>"), kGood, "friendlyName = \xC3\xBC"},
        {Device("<iconList/>"), kGood, "ParseServiceInfo: Unable to find 'serviceList' element in XML."},
        {"<!-- <a> <a --><root a='>' b=\"</root>\"/><!-- -->", kGood, noDevice},
    });
    for (const std::string& body :
         {std::string("hello"), std::string("<!-- only this -->"), std::string("<root><device></root>"),
          std::string("<root>"), std::string("<a b='1' b='2'/>"), Device("<friendlyName>&#x110000;</friendlyName>"),
          Device("<friendlyName>&#xD800;</friendlyName>"), Device("<friendlyName>&#0;</friendlyName>")})
    {
        Expect({{body, kBad, kNotParsed}});
    }
    for (const std::string& body :
         {Device("<friendlyName>\xFC</friendlyName>"), std::string("<root>\xEF"), std::string("<root> \0</root>", 15)})
    {
        Expect({{body, kBad, "is not parsed: it is not UTF-8 text"}});
    }
}

TEST_F(XmlTest, DangerousOrLargeXmlIsNotParsed)
{
    const std::string deep = Repeat("<a>", 30);
    const std::string deepEnd = Repeat("</a>", 30);
    Expect({
        {Device(deep + deepEnd), kGood, ""},
        {Device(deep + "<a/>" + deepEnd), kGood, ""},
        {Device(deep + "<a></a>" + deepEnd), kBad, "is not parsed: its elements are nested too deeply"},
        {Device("<a " + Repeat("x='' ", 65) + "/>"), kBad, "is not parsed: one of its tags has too many attributes"},
        {Device(Repeat("<a/>", 1021)), kBad, "is not parsed: it has too many tags or attributes"},
        {Device(Repeat("=", 1025)), kBad, "is not parsed: it has too many tags or attributes"},
        {Device(std::string(65536, 'a')), kBad, "of 'Kitchen' is not parsed: it is too long"},
        {"<!DOCTYPE html><html></html>", kBad, "is not parsed: it has a document type"},
        {Device("<![CDATA[ x"), kBad, "is not parsed: it ends within a tag"},
        {Device("<a x='"), kBad, "is not parsed: it ends within a tag"},
    });
}

TEST_F(SsdpDeviceParserTest, FailedFetchIsReportedOnce)
{
    parser->ParseDevice("", InfoOf("a"));
    for (const std::string location : {"http://localhost/", "file:///etc/passwd"})
    {
        parser->ParseDevice(location, InfoOf("a"));
    }
    http.m_hasNoThread = true;
    Parse("10.0.0.2", "a");
    http.m_hasNoThread = false;
    EXPECT_TRUE(log.Contains("the description at 'http://10.0.0.2/a.xml' of 'a' is not fetched: Resource temporarily"));
    EXPECT_THAT(Results(),
                ElementsAre("a PARSE_NO_DATA", "a PARSE_HTTP_ERROR", "a PARSE_HTTP_ERROR", "a PARSE_HTTP_ERROR"));
    EXPECT_THAT(Requested(), IsEmpty());

    const std::tuple<int, const char*, int> answers[] = {{404, "<root/>", 0}, {0, "", 7},          {200, "<root/>", 23},
                                                         {200, "", 0},        {302, "<root/>", 0}, {399, "", 0}};
    for (const auto& [status, body, curlStatus] : answers)
    {
        Parse("10.0.0.2", "b");
        Answer(http.m_urls.size() - 1, status, body, curlStatus);
    }
    EXPECT_TRUE(log.Contains("GET failed, responseStatus=0, curl_status=7"));
    EXPECT_THAT(Results(), ElementsAre("b PARSE_HTTP_ERROR", "b PARSE_HTTP_ERROR", "b PARSE_HTTP_ERROR",
                                       "b PARSE_NO_DATA", "b PARSE_SUCCESS", "b PARSE_NO_DATA"));
}

TEST_F(SsdpDeviceParserTest, HostsAlternateAndUnreachableHostsGoLast)
{
    Parse("10.0.0.99", "slow");
    Answer(0, 0, "", 28);
    for (const char* const host : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"})
    {
        Parse(host, "a");
        Parse(host, "b");
    }
    EXPECT_THAT(Requested(), ElementsAre("99/slow.xml", "1/a.xml", "1/b.xml", "2/a.xml", "2/b.xml", "3/a.xml",
                                         "3/b.xml", "4/a.xml", "4/b.xml"));
    Results();
    log.Clear();
    Parse("10.0.0.1", "c");
    Parse("10.0.0.1", "c");
    EXPECT_THAT(Results(), ElementsAre("c PARSE_HTTP_ERROR", "c PARSE_HTTP_ERROR"));
    EXPECT_TRUE(log.Contains("'http://10.0.0.1/c.xml' of 'c' is not fetched: too many descriptions of its host are"));
    EXPECT_EQ(log.Count(DPrint::LEVEL_WARNING), 1U) << "logged once";

    for (const char* const host : {"10.0.0.99", "10.0.0.98", "10.0.0.97", "10.0.0.96"})
    {
        Parse(host, "a");
        Parse(host, "b");
    }
    EXPECT_THAT(Requested(), IsEmpty()) << "eight at once";
    for (std::size_t number = 1; number < 9; ++number)
    {
        Answer(number, 200, "<root/>");
    }
    EXPECT_THAT(Requested(), ElementsAre("98/a.xml", "97/a.xml", "96/a.xml", "98/b.xml", "97/b.xml", "96/b.xml",
                                         "99/a.xml", "99/b.xml"));
    Answer(15, 200, "<root/>"); // it was reached, so it has the same rank as the others again
    for (const char* const host : {"10.0.0.99", "10.0.0.95"})
    {
        Parse(host, "c");
    }
    Answer(9, 200, "<root/>");
    EXPECT_THAT(Requested(), ElementsAre("99/c.xml", "95/c.xml"));
}

TEST_F(SsdpDeviceParserTest, FetchesAndTheirTimeInTheQueueAreLimited)
{
    for (int host = 0; host < 256; ++host)
    {
        Parse("10.0." + std::to_string(host / 100) + "." + std::to_string(host % 100));
    }
    EXPECT_EQ(Requested().size(), 8U);
    EXPECT_THAT(Results(), IsEmpty());
    Parse("10.0.9.1");
    EXPECT_THAT(Results(), ElementsAre("10.0.9.1 PARSE_HTTP_ERROR"));
    EXPECT_TRUE(log.Contains("'10.0.9.1' is not fetched: too many descriptions are being fetched"));
    Answer(0, 200, "<root/>"); // one that ends starts one that waits
    EXPECT_THAT(Requested(), ElementsAre("8/"));
    Results();

    simulation.RunFor(9s);
    EXPECT_THAT(Results(), IsEmpty());
    simulation.RunFor(1s);
    EXPECT_EQ(Results().size(), 256U - 9U);
    EXPECT_TRUE(log.Contains("is not fetched: it has waited too long in the queue"));
    simulation.RunFor(1h);
    EXPECT_THAT(Results(), IsEmpty()) << "running fetches are not given up";
}

TEST_F(SsdpDeviceParserTest, EndDropsWaitingFetchesAndLaterResponses)
{
    for (int host = 0; host < 9; ++host)
    {
        Parse("10.0.0." + std::to_string(host));
    }
    IL::StopTask(task);
    parser.reset();
    http.Answer(2, 200, "<root/>");
    simulation.RunFor(1h);
    EXPECT_THAT(Results(), IsEmpty());
    EXPECT_EQ(http.m_urls.size(), 8U);
}

// TinyXML sees as many levels as XmlPrecheck allows "<"; XmlPrecheck sees one.
TEST(SsdpDeviceParserOnItsTask, StackHoldsTheDeepestDescription)
{
    const LogCapture log("2");
    const RealTask task("SsdpDiscoveryTask");
    FakeHttp http;
    Watched<std::string> result;
    SsdpDeviceParser parser(&http, task.Get(),
                            [&result](SsdpDeviceParser::ParseStatus status, const Sonarix::ProductInfo&)
                            { result.Set(Name(status)); });
    task.Run([&] { parser.ParseDevice("http://10.0.0.2/", InfoOf("a")); });
    task.Run([&] { http.Answer(0, 200, "<?xml x>" + Repeat("<a>", 1023) + "?>"); });
    EXPECT_TRUE(result.WaitFor("PARSE_XML_ERROR")) << log.Text();
    task.StopAndJoin();
}

} // namespace
