// Limits for the information of a remote product. The simulation covers the other effects of that information.

#include "tests/aggregator/AggregatorWorld.h"

TEST_F(AggregatorTest, OversizedAnswerIsIgnoredAndElementsAreLimited)
{
    StartAsHost();
    Ssdp({"a"});
    Answer("a", R"({"guid":"a","friendlyname":")" + std::string(70000, 'x') + R"("})");
    EXPECT_TRUE(lists.empty());
    EXPECT_TRUE(log.Contains("The information of a has 70"));

    for (int report = 0; report < 200; ++report)
    {
        const std::string number = std::to_string(report);
        Remote("a")->PushText(kInfoPath, R"({"guid":"a","icons":[{"url":"/)" + number +
                                             R"("}],"services":[{"serviceid":")" + number + R"("}]})");
        simulation.RunUntilIdle();
    }
    EXPECT_LE(Row("a").productinfo().icons_size(), 64);
    EXPECT_LE(Row("a").productinfo().services_size(), 64);
    EXPECT_EQ(Row("a").state(), SXCommon::ONLINE);
}
