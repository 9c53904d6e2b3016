// The scripted app platform: what it makes of packs, and what goes out when.
#include "platform_peer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using namespace std::literals;
using bench::PackKind;
using bench::PlatformDelivery;
using bench::PlatformPeer;

using Action = PlatformDelivery::Action;

const PlatformPeer::Time kStart{};

std::string report(char port) {
    return bench::encode_pack(PackKind::report, ""s + port + "\0\0\0"s);
}

std::string command(std::string_view line) {
    return bench::encode_pack(PackKind::command, line);
}

// A peer with the AT port connected and reported.
struct Played {
    explicit Played(const std::string& text)
        : parsed(bench::parse_scenario(text, bench::platform_verbs())),
          peer(parsed.scenario, kStart) {
        EXPECT_EQ(parsed.error, "");
        peer.connected(1, kStart);
        EXPECT_TRUE(peer.received(1, report(1), kStart));
    }
    std::vector<PlatformDelivery> hears(std::string_view bytes, PlatformPeer::Time now = kStart) {
        EXPECT_TRUE(peer.received(1, bytes, now));
        return peer.take_due(now);
    }
    bench::ParsedScenario parsed;
    PlatformPeer peer;
};

TEST(PlatformPeer, GoldenPack) {
    EXPECT_EQ(command("AT\r"), "kcap\x2f\0\0\0"s + std::string(12, '\0') + "\1\0\0\0"s +
                                   std::string(12, '\0') + "\3\0\0\0"s + std::string(4, '\0') +
                                   "AT\r");
}

TEST(PlatformPeer, TakesPacksFromAStreamCutAnywhere) {
    const std::string bytes = command("AT+CSQ\r") + command("ATI9\r");
    for (const std::size_t cut : {1u, 2u, 3u, 44u, 1000u}) {
        Played played("on *\n answer OK\n");
        played.peer.take_requests();
        for (std::size_t at = 0; at < bytes.size(); at += cut) {
            played.hears(std::string_view(bytes).substr(at, cut));
        }
        const auto requests = played.peer.take_requests();
        ASSERT_EQ(requests.size(), 2u) << cut;
        EXPECT_EQ(requests[0].port, "at");
        EXPECT_EQ(requests[0].payload, "AT+CSQ\r");
        EXPECT_EQ(requests[1].payload, "ATI9\r");
    }
}

TEST(PlatformPeer, WhatIsNoPackEndsTheConnection) {
    for (const std::string& bytes :
         {"kcaq"s + std::string(40, '\0'), "kcap\x2b\0\0\0"s + std::string(36, '\0'),
          "kcap\xff\xff\xff\xff"s + std::string(36, '\0')}) {
        Played played("");
        EXPECT_FALSE(played.peer.received(1, bytes, kStart));
    }
}

TEST(PlatformPeer, NamesThePortOfEachReport) {
    const struct {
        char number;
        const char* name;
    } rows[] = {{0, "modem"}, {1, "at"}, {4, "uart"}, {2, "?"}};
    for (const auto& row : rows) {
        PlatformPeer peer({}, kStart);
        peer.connected(7, kStart);
        peer.received(7, report(row.number), kStart);
        EXPECT_EQ(peer.take_requests().at(0).port, row.name);
    }
}

TEST(PlatformPeer, AnAnswerWithoutAWaitIsOneWriteOfSeveralPacks) {
    Played played("on AT+CSQ\n answer +CSQ: 9,99\n answer OK\n");
    const auto out = played.hears(command("at+csq\r\n"));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].connection, 1);
    EXPECT_EQ(out[0].bytes, command("\r\n+CSQ: 9,99\r\n") + command("\r\nOK\r\n"));
}

TEST(PlatformPeer, AWaitMakesTwoWritesOfIt) {
    Played played("on AT+CSQ\n answer one\n wait 100ms\n answer two\n");
    EXPECT_EQ(played.hears(command("AT+CSQ\r")).size(), 1u);
    EXPECT_EQ(played.peer.next_due(), kStart + 100ms);
    EXPECT_EQ(played.peer.take_due(kStart + 99ms).size(), 0u);
    const auto out = played.peer.take_due(kStart + 100ms);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].bytes, command("\r\ntwo\r\n"));
    EXPECT_FALSE(played.peer.next_due());
}

TEST(PlatformPeer, ALineThatComesWhileOneIsAnsweredWaitsItsTurn) {
    Played played("on A\n wait 1s\n answer first\non B\n answer second\n");
    EXPECT_TRUE(played.hears(command("A\r") + command("B\r")).empty());
    const auto out = played.peer.take_due(kStart + 1s);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].bytes, command("\r\nfirst\r\n"));
    EXPECT_EQ(out[1].bytes, command("\r\nsecond\r\n"));
}

TEST(PlatformPeer, KindsLastToTheEndOfTheRule) {
    Played played(
        "on A\n as-data\n send x\n as-online\n send x\n as-indication\n send x\n as-command\n"
        " send x\non B\n send x\n");
    EXPECT_EQ(played.hears(command("A\r")).at(0).bytes,
              bench::encode_pack(PackKind::data, "x") + bench::encode_pack(PackKind::online, "x") +
                  bench::encode_pack(PackKind::indication, "x") + command("x"));
    EXPECT_EQ(played.hears(command("B\r")).at(0).bytes, command("x"));
}

TEST(PlatformPeer, DataIsEchoedUntilPlusPlusPlus) {
    Played played("on A\n as-data\n send go\n data echo\n as-command\n answer END\n");
    played.hears(command("A\r"));
    const auto data = bench::encode_pack(PackKind::data, "a\0b"sv);
    EXPECT_EQ(played.hears(data).at(0).bytes, data);
    EXPECT_EQ(played.hears(bench::encode_pack(PackKind::data, "+++")).at(0).bytes,
              command("\r\nEND\r\n"));
}

TEST(PlatformPeer, SwallowedDataIsNotAnswered) {
    Played played("on A\n data swallow\n answer END\n");
    played.hears(command("A\r"));
    EXPECT_TRUE(played.hears(bench::encode_pack(PackKind::data, "x")).empty());
}

TEST(PlatformPeer, RawBytesAndAFalseLengthGoOutAsWritten) {
    Played played("on A\n raw ju\\x00nk\n length 43\n send x\n send y\n");
    std::string wrong = command("x");
    wrong[4] = 43;
    EXPECT_EQ(played.hears(command("A\r")).at(0).bytes, "ju\0nk"s + wrong + command("y"));
}

TEST(PlatformPeer, WaysToGoAway) {
    Played played("on A\n answer bye\n hangup\non B\n halfclose\non C\n restart 2s\n");
    const auto out = played.hears(command("A\r"));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].action, Action::write);
    EXPECT_EQ(out[1].action, Action::hang_up);
    EXPECT_EQ(played.hears(command("B\r")).at(0).action, Action::half_close);
    const auto restart = played.hears(command("C\r"));
    EXPECT_EQ(restart.at(0).action, Action::restart);
    EXPECT_EQ(restart.at(0).down_for, 2000ms);
}

TEST(PlatformPeer, TimersSpeakOnReportedConnectionsOfTheirPort) {
    Played played("every 5s\n only at\n as-indication\n send tick\nafter 5s\n send once\n");
    played.peer.connected(2, kStart);
    played.peer.received(2, report(0), kStart);
    played.peer.connected(3, kStart);  // not reported
    EXPECT_TRUE(played.peer.take_due(kStart + 4s).empty());
    EXPECT_EQ(played.peer.next_due(), kStart + 5s);
    const auto out = played.peer.take_due(kStart + 5s);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].connection, 1);
    EXPECT_EQ(out[1].connection, 2);
    EXPECT_EQ(out[1].bytes, command("once"));
    EXPECT_EQ(played.peer.take_due(kStart + 10s).size(), 1u) << "only what repeats";
}

TEST(PlatformPeer, AClosedConnectionForgetsItsSteps) {
    Played played("on A\n wait 1s\n answer late\n");
    played.hears(command("A\r"));
    played.peer.closed(1);
    EXPECT_TRUE(played.peer.take_due(kStart + 2s).empty());
}

TEST(PlatformPeer, TheShippedScenariosAreUnderstood) {
    for (const char* name : {"platform-default.txt", "platform-features.txt"}) {
        const auto parsed =
            bench::load_scenario(VEXA_SCENARIO_FOLDER "/"s + name, bench::platform_verbs());
        EXPECT_EQ(parsed.error, "");
        EXPECT_FALSE(parsed.scenario.rules.empty());
    }
}

}  // namespace
