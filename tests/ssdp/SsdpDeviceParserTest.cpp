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
    void RetryWait(bool begins)
    {
        http.m_onRetryWait(begins);
        simulation.RunUntilIdle();
    }
    /// Fetches `body` for `info`, and gives the status' name.
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
    /// The hosts asked since the last call.
    std::vector<std::string> Asked()
    {
        std::vector<std::string> hosts;
        for (; asked < http.m_urls.size(); ++asked)
        {
            hosts.push_back(http.m_urls[asked].substr(std::string("http://10.0.0.").size()));
        }
        return hosts;
    }

    IL::Simulation simulation{1};
    LogCapture log{"7"};
    FakeHttp http;
    NotifyTargetTaskIF* task = IL::CreateTask("SsdpDiscoveryTask", "");
    std::vector<std::string> results;
    Sonarix::ProductInfo last;
    std::size_t asked = 0;
    std::unique_ptr<SsdpDeviceParser> parser = std::make_unique<SsdpDeviceParser>(
        &http, task,
        [this](SsdpDeviceParser::ParseStatus status, const Sonarix::ProductInfo& info)
        {
            results.push_back(info.guid() + " " + Name(status));
            last = info;
        });
};

TEST_F(SsdpDeviceParserTest, WhatADescriptionSaysGoesIntoTheRecord)
{
    EXPECT_THAT(http.m_settings, ElementsAre("retries 0", "timeout 5", "bytes 65536", "running 8"));
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

    // Rows are appended, up to a bound: past that the device starts afresh.
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(text + rows + rows, &expected));
    EXPECT_EQ(Read(description, last), "PARSE_SUCCESS");
    EXPECT_EQ(last.DebugString(), expected.DebugString());
    for (int round = 2; round < 128; ++round)
    {
        ASSERT_EQ(Read(description, last), "PARSE_SUCCESS");
    }
    EXPECT_EQ(Read(description, last), "PARSE_XML_ERROR");
    EXPECT_TRUE(log.Contains("the description at 'http://10.0.0.2/' of 'Kitchen' is not taken: "));

    // Nor may a few long ones pile up.
    const std::string longRow = Device("<iconList><icon><url>" + std::string(60'000, 'x') + "</url></icon></iconList>");
    EXPECT_EQ(Read(longRow), "PARSE_SUCCESS");
    EXPECT_EQ(Read(longRow, last), "PARSE_SUCCESS");
    EXPECT_EQ(Read(longRow, last), "PARSE_XML_ERROR");
}

TEST_F(SsdpDeviceParserTest, WellFormedXmlOfAnyContentIsASuccessAndNothingElseIs)
{
    const std::string deep = Repeat("<a>", 30);
    const std::string deepEnd = Repeat("</a>", 30);
    struct Case
    {
        std::string body;
        std::string status;
        std::string line;
    };
    const std::string good = "PARSE_SUCCESS";
    const std::string bad = "PARSE_XML_ERROR";
    const std::string noDevice = "Unable to find 'device' element in XML.";
    const std::string notParsed = "Error parsing XML data.";
    const std::vector<Case> cases = {
        {"<scpd/>", good, noDevice},
        {"<root><Device/></root>", good, noDevice},
        {"\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n" + Device(""), good, ""},
        {Device("<friendlyName>\xC3\xBC</friendlyName>"), good, "friendlyName = \xC3\xBC"},
        {Device("<iconList/>"), good, "ParseServiceInfo: Unable to find 'serviceList' element in XML."},
        {"<!-- <a> <a --><root a='>' b=\"</root>\"/><!-- -->", good, noDevice},
        {Device(deep + deepEnd), good, ""},
        {Device(deep + "<a/>" + deepEnd), good, ""},
        {Device(deep + "<a></a>" + deepEnd), bad, "is not parsed: its elements are nested too deeply"},
        {Device("<a " + Repeat("x='' ", 65) + "/>"), bad, "is not parsed: one of its tags has too many attributes"},
        {Device(Repeat("<a/>", 1021)), bad, "is not parsed: it has too many tags or attributes"},
        {Device(Repeat("=", 1025)), bad, "is not parsed: it has too many tags or attributes"},
        {Device(std::string(65536, 'a')), bad, "of 'Kitchen' is not parsed: it is too long"},
        {"<!DOCTYPE html><html></html>", bad, "is not parsed: it has a document type"},
        {Device("<![CDATA[ x"), bad, "is not parsed: it ends within a tag"},
        {Device("<a x='"), bad, "is not parsed: it ends within a tag"},
        {"hello", bad, notParsed},
        {"<!-- only this -->", bad, notParsed},
        {"<root><device></root>", bad, notParsed},
        {"<root>", bad, notParsed},
        {"<a b='1' b='2'/>", bad, notParsed},
        {Device("<friendlyName>&#x110000;</friendlyName>"), bad, notParsed},
        {Device("<friendlyName>&#xD800;</friendlyName>"), bad, notParsed},
        {Device("<friendlyName>&#0;</friendlyName>"), bad, notParsed},
        {Device("<friendlyName>\xFC</friendlyName>"), bad, "is not parsed: it is no UTF-8 text"},
        {"<root>\xEF", bad, "is not parsed: it is no UTF-8 text"},
        {std::string("<root> \0</root>", 15), bad, "is not parsed: it is no UTF-8 text"},
    };
    for (const Case& one : cases)
    {
        log.Clear();
        simulation.RunFor(1min); // a reason is told once in that time
        EXPECT_EQ(Read(one.body), one.status) << one.body.substr(0, 80) << '\n' << log.Text();
        EXPECT_TRUE(log.Contains(one.line)) << one.body.substr(0, 80) << '\n' << log.Text();
        if (one.status == bad)
        {
            EXPECT_TRUE(log.Contains(notParsed));
            EXPECT_TRUE(log.Contains("the description at 'http://10.0.0.2/' of 'Kitchen' is not parsed: "));
            EXPECT_EQ(last.DebugString(), "guid: \"Kitchen\"\nlocation: \"http://10.0.0.2/\"\n");
        }
    }
}

TEST_F(SsdpDeviceParserTest, WhatIsNoAnswerIsAFailureThatComesBackOnce)
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
    EXPECT_THAT(Asked(), IsEmpty());

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

TEST_F(SsdpDeviceParserTest, TurnsGoRoundByHostAndThoseThatWereNotReachedGoLast)
{
    Parse("10.0.0.99", "slow");
    Answer(0, 0, "", 28);
    for (const char* const host : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"})
    {
        Parse(host, "a");
        Parse(host, "b");
    }
    EXPECT_THAT(Asked(), ElementsAre("99/slow.xml", "1/a.xml", "1/b.xml", "2/a.xml", "2/b.xml", "3/a.xml", "3/b.xml",
                                     "4/a.xml", "4/b.xml"));
    Results();
    log.Clear();
    Parse("10.0.0.1", "c");
    Parse("10.0.0.1", "c");
    EXPECT_THAT(Results(), ElementsAre("c PARSE_HTTP_ERROR", "c PARSE_HTTP_ERROR"));
    EXPECT_TRUE(log.Contains("'http://10.0.0.1/c.xml' of 'c' is not fetched: as many descriptions of its host are"));
    EXPECT_EQ(log.Count(DPrint::LEVEL_WARNING), 1U) << "told once";

    for (const char* const host : {"10.0.0.99", "10.0.0.98", "10.0.0.97", "10.0.0.96"})
    {
        Parse(host, "a");
        Parse(host, "b");
    }
    EXPECT_THAT(Asked(), IsEmpty()) << "eight at once";
    for (std::size_t number = 1; number < 9; ++number)
    {
        Answer(number, 200, "<root/>");
    }
    EXPECT_THAT(Asked(), ElementsAre("98/a.xml", "97/a.xml", "96/a.xml", "98/b.xml", "97/b.xml", "96/b.xml", "99/a.xml",
                                     "99/b.xml"));
    Answer(15, 200, "<root/>"); // it was reached, and is as good as the others again
    for (const char* const host : {"10.0.0.99", "10.0.0.95"})
    {
        Parse(host, "c");
    }
    Answer(9, 200, "<root/>");
    EXPECT_THAT(Asked(), ElementsAre("99/c.xml", "95/c.xml"));
}

TEST_F(SsdpDeviceParserTest, AFetchThatWaitsForItsRetryHoldsNoTurnAndTheBoundsHoldForAll)
{
    for (int host = 0; host < 9; ++host)
    {
        Parse("10.0.0." + std::to_string(host));
    }
    EXPECT_EQ(Asked().size(), 8U);
    RetryWait(true);
    EXPECT_THAT(Asked(), ElementsAre("8/"));
    RetryWait(false); // a ninth in transfer: the next one waits for two to end
    Parse("10.0.0.9");
    Answer(0, 200, "<root/>");
    EXPECT_THAT(Asked(), IsEmpty());
    Answer(1, 200, "<root/>");
    EXPECT_THAT(Asked(), ElementsAre("9/"));

    // Those that wait for a retry count among all.
    for (int i = 0; i < 8; ++i)
    {
        RetryWait(true);
    }
    Results();
    for (int host = 10; host < 10 + 256 - 8; ++host)
    {
        Parse("10.0." + std::to_string(host / 100) + "." + std::to_string(host % 100));
    }
    EXPECT_THAT(Results(), IsEmpty());
    Parse("10.0.9.1");
    EXPECT_THAT(Results(), ElementsAre("10.0.9.1 PARSE_HTTP_ERROR"));
    EXPECT_TRUE(log.Contains("'10.0.9.1' is not fetched: as many descriptions are being fetched as may"));

    // Ten seconds in the line are a failure: the slowness is ours.
    simulation.RunFor(9s);
    EXPECT_THAT(Results(), IsEmpty());
    simulation.RunFor(1s);
    EXPECT_EQ(Results().size(), 256U - 16U);
    EXPECT_TRUE(log.Contains("is not fetched: it has waited too long for its turn"));
    simulation.RunFor(1h);
    EXPECT_THAT(Results(), IsEmpty()) << "those that are under way end by themselves";

    // The end drops what waits, and what comes later finds nobody.
    Parse("10.0.9.2");
    IL::StopTask(task);
    parser.reset();
    http.Answer(2, 200, "<root/>");
    http.m_onRetryWait(true);
    simulation.RunFor(1h);
    EXPECT_THAT(Results(), IsEmpty());
}

// As deep for TinyXML as can be, and flat for our look.
TEST(SsdpDeviceParserOnItsTask, ItsStackHoldsTheDeepestDescription)
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
