// The client of the local sockets: its command line, the changes that a watch reports, and its output.
#include "schemas/SonarixPb.pb.h"
#include "tools/clients/sonarix-ipc/Command.h"
#include "tools/clients/sonarix-ipc/DeviceText.h"
#include "tools/clients/sonarix-ipc/KnownDevices.h"

#include <gtest/gtest.h>

#include <sstream>

namespace
{

/// Returns the error of a command line, or an empty string.
std::string ErrorOf(const std::vector<std::string>& words, Command& command)
{
    std::vector<const char*> argv{"sonarix-ipc"};
    for (const std::string& word : words)
    {
        argv.push_back(word.c_str());
    }
    Options options = CommandOptions();
    std::string error;
    if (!options.Parse(static_cast<int>(argv.size()), argv.data()))
    {
        return options.Error();
    }
    const bool isValid = ReadCommand(options, command, error);
    EXPECT_EQ(isValid, error.empty());
    return error;
}

Device Named(const std::string& name, const std::string& guid = "g", const std::string& version = "1")
{
    SonarixPb::DeviceInfo info;
    info.set_friendlyname(name);
    info.set_guid(guid);
    info.set_softwareversion(version);
    return DeviceFromInfo(info);
}

/// Returns the changes as text: "+ one, - two".
std::string ChangesOf(const std::vector<DeviceChange>& changes)
{
    std::string text;
    for (const DeviceChange& change : changes)
    {
        const char sign = "+~-"[static_cast<std::size_t>(change.kind)];
        text += (text.empty() ? "" : ", ") + std::string(1, sign) + " " + change.device.Field("friendlyname");
    }
    return text;
}

TEST(IpcCommand, AcceptsRecordsAndAnnouncements)
{
    Command add;
    EXPECT_EQ(ErrorOf({"add", "--keep", "_kova-clock._tcp", "A clock", "9000", "A=1=2", "B=", "--json"}, add), "");
    EXPECT_EQ(add.name, "A clock");
    EXPECT_EQ(add.port, 9000);
    EXPECT_EQ(add.txt, (std::map<std::string, std::string>{{"A", "1=2"}, {"B", ""}}));
    EXPECT_TRUE(add.isKept && add.isJson);
    EXPECT_EQ(add.interface, -1);

    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"announce", "friendlyname=Kitchen", "guid=g"},
          std::vector<std::string>{"announce", R"({"friendlyname": "Kitchen", "guid": "g"})"}})
    {
        Command announce;
        EXPECT_EQ(ErrorOf(words, announce), "");
        EXPECT_EQ(announce.device->guid(), "g");
        EXPECT_EQ(announce.device->devicetype(), "RENDERER");
    }
    Command watch;
    EXPECT_EQ(ErrorOf({"watch", "mdns", "_kova-clock._tcp", "--every", "0.5"}, watch), "");
    EXPECT_EQ(watch.every, std::chrono::milliseconds(500));
}

TEST(IpcCommand, RejectsInvalidRecordsBeforeTheServiceSeesThem)
{
    const std::string longName(64, 'n');
    const std::string largeText(252, 'v');
    const std::vector<std::pair<std::string, std::vector<std::string>>> refused = {
        {"", {"", "lists ssdp", "list", "list mdns", "update _a._tcp name 80 --keep"}},
        {"list ", {"ssdp _a._tcp", "mdns kova-clock", "mdns _._tcp", "mdns _a._tcp.local", "ssdp --keep"}},
        {"watch ", {"mdns _a._tcp --every 0", "mdns _a._tcp --every nan", "ssdp --every 2"}},
        {"add _a._tcp ", {"name", "name 0", " 80", "K\xFCn 80", longName + " 80"}},
        {"add _a._tcp name 80 ", {"key", "=value", "key=" + largeText, "key=1 key=2"}},
        {"add _a._tcp name 80 ", {"--interface no-such-link", "--protocol ipv5"}},
        {"remove _a._tcp", {"", " name --protocol ipv4", " name 80"}},
        {"announce ", {"guid=g", "friendlyname=n mdnsClockInfo=1", R"({"friendlyname":1})", "@/no/such/file"}},
    };
    for (const auto& [begin, ends] : refused)
    {
        for (const std::string& end : ends)
        {
            std::vector<std::string> words;
            std::istringstream rest(begin + end);
            for (std::string word; std::getline(rest, word, ' ');) // two blanks: an empty one
            {
                words.push_back(word);
            }
            Command command;
            EXPECT_NE(ErrorOf(words, command), "") << begin + end;
        }
    }
}

TEST(IpcWatch, ListYieldsOnlyTheChanges)
{
    KnownDevices known("friendlyname");
    EXPECT_EQ(ChangesOf(known.ApplyList({Named("one"), Named("two")})), "+ one, + two");
    EXPECT_EQ(ChangesOf(known.ApplyList({Named("two"), Named("one")})), "");
    EXPECT_EQ(ChangesOf(known.ApplyPartialList({})), "");
    const auto changes = known.ApplyList({Named("three"), Named("two", "g", "2")});
    EXPECT_EQ(ChangesOf(changes), "- one, + three, ~ two");
    EXPECT_EQ(ChangeText(changes[2]), "~ two  softwareversion 1 -> 2");
    EXPECT_EQ(ChangeJson(changes[0]),
              R"({"change":"gone","device":{"guid":"g","friendlyname":"one","softwareversion":"1"}})");
}

TEST(IpcWatch, UnconfirmedDevicesStayUntilRemoved)
{
    KnownDevices known("friendlyname");
    known.ApplyList({Named("one"), Named("two"), Named("three")});
    known.MarkUnconfirmed();
    EXPECT_EQ(ChangesOf(known.ApplyList({})), "");
    EXPECT_EQ(ChangesOf(known.ApplyList({Named("one")})), "");
    EXPECT_EQ(ChangesOf(known.ApplyList({Named("two", "g", "2")})),
              "- one, ~ two"); // both were received again: confirmed
    EXPECT_EQ(ChangesOf(known.RemoveUnconfirmed()), "- three");
    EXPECT_EQ(ChangesOf(known.RemoveUnconfirmed()), "");
}

TEST(IpcPrint, TableHasFilledColumnsAndNoControlCharacters)
{
    SonarixPb::DeviceInfo clock;
    clock.set_friendlyname("K\xC3\xBC\x1B[2J\xC2\x9B");
    clock.mutable_mdnsclockinfo()->set_clockdomain("4");
    EXPECT_EQ(DeviceTable({DeviceFromInfo(clock), Named("two")}), "NAME     GUID  SOFTWARE  CLOCK\n"
                                                                  "K\xC3\xBC?[2J?  -     -         4\n"
                                                                  "two      g     1         -\n");
}

} // namespace
