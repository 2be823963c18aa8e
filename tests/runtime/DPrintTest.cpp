#include "runtime/DPrint.h"

#include "runtime/engine/LogLine.h"
#include "tests/support/ForkedRun.h"
#include "tests/support/LogCapture.h"

#include <chrono>
#include <cstdlib>
#include <gmock/gmock.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

const DPrint s_log("LogTest");

void NamedFunction(const std::string& text)
{
    DPRINT(s_log, DPrint::LEVEL_INFO, text);
}

TEST(DPrintTest, OnlyTheStreamFormPrintsTheFunctionName)
{
    const LogCapture log;
    NamedFunction("etcDir: " + std::to_string(1));
    NamedFunction("");
    NamedFunction("NamedFunction");
    NamedFunction("NamedFunction()");
    NamedFunction("ends in: ");
    DPRINTF(s_log, DPrint::LEVEL_WARNING, "%s()", "StopService");
    s_log.LogError("%s", std::string(5000, 'x').c_str());
    [] { DPRINT_AS(s_log, DPrint::LEVEL_INFO, "Outer", "in a lambda"); }();
    using Line = LogCapture::Line;
    EXPECT_THAT(log.Lines(), ElementsAre(Line{"LogTest", DPrint::LEVEL_INFO, "NamedFunction: etcDir: 1"},
                                         Line{"LogTest", DPrint::LEVEL_INFO, "NamedFunction"},
                                         Line{"LogTest", DPrint::LEVEL_INFO, "NamedFunction"},
                                         Line{"LogTest", DPrint::LEVEL_INFO, "NamedFunction: NamedFunction()"},
                                         Line{"LogTest", DPrint::LEVEL_INFO, "NamedFunction: ends in: "},
                                         Line{"LogTest", DPrint::LEVEL_WARNING, "StopService()"},
                                         Line{"LogTest", DPrint::LEVEL_ERROR, std::string(5000, 'x')},
                                         Line{"LogTest", DPrint::LEVEL_INFO, "Outer: in a lambda"}));
}

TEST(DPrintTest, LevelsApplyToExistingAndLaterChannels)
{
    int formatted = 0;
    const auto text = [&formatted] { return ++formatted; };
    LogCapture log("2,LogTest=6,Later=0,,Bad=8,=3,x=,6x,Of=Two=4");
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 5u) << log.Text();
    EXPECT_TRUE(log.Contains("\"Bad=8\""));
    const DPrint later("Later");
    const DPrint other(std::string("Other"));
    EXPECT_TRUE(later.IsLog(DPrint::LEVEL_CRITICAL) && !later.IsLog(DPrint::LEVEL_ERROR));
    EXPECT_TRUE(DPrint("Of=Two").IsLog(DPrint::LEVEL_DEBUG));
    log.Clear();
    DPRINT(s_log, DPrint::LEVEL_FINEST, text());
    other.LogInfo("%d", 1);
    other.LogWarning("%d", 2);
    EXPECT_EQ(formatted, 0) << "nothing is formatted for a level that is off";
    EXPECT_EQ(log.Lines().size(), 1u) << log.Text();
    DPrint::SetLevels("7");
    EXPECT_TRUE(later.IsLog(DPrint::LEVEL_FINEST) && other.IsLog(DPrint::LEVEL_FINEST));
}

TEST(DPrintTest, TextCannotBreakOutOfItsLine)
{
    const auto escaped = [](const std::string& text)
    {
        std::string line;
        LogLine::AppendEscaped(line, text, 1000);
        return line;
    };
    EXPECT_EQ(escaped("plain, \xC3\xA9\xE2\x82\xAC\xF0\x9F\x94\x8A"), "plain, \xC3\xA9\xE2\x82\xAC\xF0\x9F\x94\x8A");
    EXPECT_EQ(escaped("a\n<0>forged\r\t\x1B[31m\x7F"), "a <0>forged\\x0d\\x09\\x1b[31m\\x7f");
    EXPECT_EQ(escaped(std::string("nul\0nul", 7)), "nul\\x00nul");
    EXPECT_EQ(escaped("\x80 \xC3"), "\\x80 \\xc3"); // a lone continuation, a cut-off character
    EXPECT_EQ(escaped("\xC0\xAF \xE0\x80\x8A"), "\\xc0\\xaf \\xe0\\x80\\x8a"); // overlong forms
    EXPECT_EQ(escaped("\xED\xA0\x80 \xF4\x90\x80\x80"), "\\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80");
    EXPECT_EQ(escaped("\xC2\x9B[2J"), "\\xc2\\x9b[2J"); // C1 control characters

    const std::string longText = std::string(20'000, 'x');
    const std::string line = LogLine::Journal("Channel", 2, longText);
    EXPECT_EQ(line.size(), LogLine::kMaxBytes);
    EXPECT_THAT(line, EndsWith("x\xE2\x80\xA6\n"));
    std::string euros = "y";
    for (int i = 0; i < 6000; ++i)
    {
        euros += "\xE2\x82\xAC";
    }
    const std::string wide = LogLine::Journal("Channel", 2, euros);
    EXPECT_LE(wide.size(), LogLine::kMaxBytes);
    EXPECT_THAT(wide, EndsWith("\xE2\x82\xAC\xE2\x80\xA6\n")) << "not cut inside a character";
}

TEST(DPrintTest, LineHasUtcTimeOrSyslogPriority)
{
    using namespace std::chrono;
    const system_clock::time_point time = sys_days(2026y / January / 31) + 12h + 5ms;
    EXPECT_EQ(LogLine::Plain("MdnsService", 3, "text", time), "2026-01-31T12:00:00.005 3 MdnsService: text\n");
    EXPECT_EQ(LogLine::Plain("X", 1, "", sys_days(1969y / December / 31)), "1969-12-31T00:00:00.000 1 X: \n");
    EXPECT_EQ(LogLine::Journal("", 0, "").substr(0, 3) + LogLine::Journal("", 7, "").substr(0, 3), "<2><7>");
}

const char* const kInside = "SONARIX_TEST_LOG";

/// Output of LineFormFollowsEnvironment in another process, because SONARIX_LOG and JOURNAL_STREAM are read once.
std::string LogOfProcess(bool journal, const char* levels)
{
    return RunForked(
               [&]
               {
                   struct stat status = {};
                   ::fstat(STDERR_FILENO, &status);
                   const std::string stream = std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino);
                   ::setenv("JOURNAL_STREAM", journal ? stream.c_str() : "1:2", 1);
                   ::setenv("SONARIX_LOG", levels, 1);
                   ::setenv(kInside, "", 1);
                   return ::execl("/proc/self/exe", "test", "--gtest_filter=*LineFormFollowsEnvironment", nullptr);
               })
        .m_output;
}

TEST(DPrintTest, LineFormFollowsEnvironment)
{
    if (std::getenv(kInside) != nullptr)
    {
        DPrint::Initialize();
        s_log.LogError("one\ntwo");
        s_log.LogDebug("three");
        return;
    }
    const std::string journal = LogOfProcess(true, "3,LogTest=4,wrong=x");
    EXPECT_THAT(journal, HasSubstr("<3>DPrint: log level entry \"wrong=x\" skipped"));
    EXPECT_THAT(journal, HasSubstr("\n<3>LogTest: one two\n<7>LogTest: three\n"));
    const std::string plain = LogOfProcess(false, "4");
    EXPECT_THAT(plain, HasSubstr(" 1 LogTest: one two\n"));
    EXPECT_THAT(plain, HasSubstr(" 4 LogTest: three\n"));
    EXPECT_THAT(plain, testing::Not(HasSubstr("<3>")));
}

} // namespace
