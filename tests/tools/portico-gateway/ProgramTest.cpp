#include "GatewayUnderTest.h"
#include "RpcClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>

#include <sys/wait.h>

using testing::HasSubstr;

namespace
{

struct Execution
{
    int status;
    std::string output;
};

Execution Execute(const std::string& arguments)
{
    Execution run{-1, {}};
    FILE* const pipe = popen((std::string(PORTICO_GATEWAY_PROGRAM) + " " + arguments + " 2>&1").c_str(), "r");
    std::array<char, 4096> buffer;
    while (pipe != nullptr && fgets(buffer.data(), static_cast<int>(buffer.size()), pipe) != nullptr)
    {
        run.output += buffer.data();
    }
    run.status = WEXITSTATUS(pclose(pipe));
    return run;
}

TEST(GatewayCommand, AnswersHelpVersionAndMistakes)
{
    EXPECT_THAT(Execute("--help").output, HasSubstr("--lan-port"));
    EXPECT_EQ(Execute("--help").status, 0);
    EXPECT_THAT(Execute("--version").output, HasSubstr("portico-gateway "));
    for (const std::string arguments : {"--port", "--port x", "--port 65536", "--port ''", "--nonsense", "extra"})
    {
        EXPECT_EQ(Execute(arguments).status, 2) << arguments;
    }
}

TEST(GatewayCommand, LeavesWithAReasonWhereItCannotListen)
{
    GatewayUnderTest gateway("own");
    const Execution taken = Execute("--port " + std::to_string(gateway.Port()) + " --lan-port 0");
    EXPECT_EQ(taken.status, 1);
    EXPECT_THAT(taken.output, HasSubstr("Address already in use"));
    const Execution lanTaken = Execute("--port 0 --lan-port " + std::to_string(gateway.LanPort()));
    EXPECT_EQ(lanTaken.status, 1);
    const Execution noTls = Execute("--port 0 --lan-port 0 --tls-dir /nowhere");
    EXPECT_EQ(noTls.status, 1);
    EXPECT_THAT(noTls.output, HasSubstr("/nowhere/ca.pem"));
}

} // namespace
