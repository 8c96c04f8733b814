#include "ControlClient.h"

#include <array>
#include <nlohmann/json.hpp>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ScriptedService.h"

namespace ParvaneWatch {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using namespace std::chrono_literals;

/** What is thrown by `work`, by its kind and text. */
template <typename Failure, typename Work>
std::string TextOfFailure(Work work)
{
    try {
        work();
    } catch (const Failure &failure) {
        return failure.what();
    }
    return "no failure";
}

TEST(ControlClientTest, NoServiceIsSaidWithItsPath)
{
    EXPECT_EQ(TextOfFailure<Unreachable>([] { ControlClient("/nonexistent/c.sock", -1); }),
              "cannot connect to /nonexistent/c.sock: No such file or directory (is the watch "
              "service running?)");
    EXPECT_THAT(TextOfFailure<Unreachable>([] { ControlClient(std::string(200, 'x'), -1); }),
                HasSubstr("File name too long"));
}

TEST(ControlClientTest, AServiceThatDoesNotAnswerIsUnreachable)
{
    const ScriptedService service;
    ControlClient client(service.Path(), -1, 10ms);
    EXPECT_EQ(TextOfFailure<Unreachable>([&client] { client.Ask(R"({"request":"status"})"); }),
              "no answer on " + service.Path() + " within 10 ms");
}

TEST(ControlClientTest, AServiceThatHangsUpIsUnreachable)
{
    ScriptedService service;
    ControlClient client(service.Path(), -1);
    service.Accept();
    service.HangUp();
    EXPECT_EQ(TextOfFailure<Unreachable>([&client] { client.Ask(R"({"request":"status"})"); }),
              "the service closed the connection " + service.Path() +
                  ": it ends, or does not serve this user");
}

TEST(ControlClientTest, WhatAServiceSaysBeforeItHangsUpIsHeard)
{
    ScriptedService service;
    ControlClient client(service.Path(), -1);
    service.Accept();
    service.Send(R"({"version":1,"ok":false,"error":{"code":"busy","message":"full"}})");
    service.HangUp();
    EXPECT_EQ(client.Ask(R"({"request":"status"})").at("error").at("code"), "busy");
}

TEST(ControlClientTest, AReplyThatIsNoneBreaksTheProtocol)
{
    for (const char *reply : {"", "hello", "[]", "{}", R"({"ok":1})", R"({"ok":true})",
                              R"({"ok":true,"version":2})", "{\"ok\":\xFF}"}) {
        ScriptedService service;
        ControlClient client(service.Path(), -1);
        service.Accept();
        service.Send(reply);
        if (*reply == '\0') {
            continue; // an empty message cannot be told from the end
        }
        EXPECT_NE(TextOfFailure<ProtocolError>([&client] { client.Ask(R"({"request":"quit"})"); }),
                  "no failure")
            << reply;
    }
}

TEST(ControlClientTest, ADescriptorInterruptsTheWaiting)
{
    ScriptedService service;
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const Parvane::UniqueFd readEnd(ends[0]);
    const Parvane::UniqueFd writeEnd(ends[1]);
    ControlClient client(service.Path(), readEnd.Get());
    service.Accept();
    ASSERT_EQ(write(writeEnd.Get(), "x", 1), 1);

    EXPECT_THROW(client.Next(), Interrupted);
    service.Send(R"({"row":"1\n"})");
    EXPECT_EQ(client.NextAtOnce(), json({{"row", "1\n"}}));
    EXPECT_EQ(client.NextAtOnce(), std::nullopt);
}

} // namespace
} // namespace ParvaneWatch
