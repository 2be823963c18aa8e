// What the person typed, and what is made of it.
#include "Command.h"
#include "Options.h"

#include <gtest/gtest.h>

#include <fstream>

namespace
{

struct Read
{
    bool isRead = false;
    Command command;
    std::string error;
};

Read ReadLine(std::vector<const char*> words)
{
    words.insert(words.begin(), "portico");
    Options options({"guid", "host", "port"});
    Read read;
    if (!options.Parse(static_cast<int>(words.size()), words.data()))
    {
        read.error = options.Error();
        return read;
    }
    read.isRead = ReadCommand(options, read.command, read.error);
    return read;
}

} // namespace

TEST(PorticoCommand, ReadsVerbPathBodyAndWhereTo)
{
    const Read get = ReadLine({"get", "/a"});
    EXPECT_TRUE(get.isRead) << get.error;
    EXPECT_EQ(get.command.host, "localhost");
    EXPECT_EQ(get.command.port, 8084);

    const Read post = ReadLine({"--guid=G", "post", "/a", "--port", "99", "{\"x\": 1}"});
    EXPECT_TRUE(post.isRead) << post.error;
    EXPECT_EQ(post.command.verb, Portico::Verb::POST);
    EXPECT_EQ(post.command.guid, "G");
    EXPECT_EQ(post.command.port, 99);
    EXPECT_EQ(post.command.body, "{\"x\": 1}");
    EXPECT_EQ(ReadLine({"delete", "/a"}).command.body, "{}");

    const std::string path = testing::TempDir() + "portico-body.json";
    std::ofstream(path) << "[1]\n";
    EXPECT_EQ(ReadLine({"put", "/a", ("@" + path).c_str()}).command.body, "[1]\n");
}

TEST(PorticoCommand, SaysWhatIsWrong)
{
    const std::pair<std::vector<const char*>, const char*> wrong[] = {
        {{}, "no command"},
        {{"fetch", "/a"}, "unknown command fetch"},
        {{"get", "a"}, "needs a path"},
        {{"get", "/a", "{}"}, "too many words"},
        {{"post", "/a", ""}, "no JSON"},
        {{"post", "/a", "@/no/such/file"}, "cannot read /no/such/file"},
        {{"get", "/a", "--port", "65536"}, "--port"},
        {{"get", "/a", "--port", "8084x"}, "--port"},
        {{"get", "/a", "--guid"}, "--guid needs a value"},
        {{"get", "/a", "--color", "red"}, "unknown option --color"},
    };
    for (const auto& [words, text] : wrong)
    {
        const Read read = ReadLine(words);
        EXPECT_FALSE(read.isRead) << text;
        EXPECT_NE(read.error.find(text), std::string::npos) << read.error;
    }
}
