// The scripted modem: what goes out when, told by a clock of the test's own.
#include "modem_peer.h"

#include <gtest/gtest.h>

namespace {

using bench::Milliseconds;
using bench::Time;

class Modem : public testing::Test {
  protected:
    void play(std::string_view text) {
        bench::ParsedScenario parsed = bench::parse_scenario(text, bench::modem_verbs());
        ASSERT_EQ(parsed.error, "");
        peer_.emplace(parsed.scenario, std::vector<std::string>{"modem", "at"}, now_);
    }
    void hear(std::string_view message, int channel = 0) {
        peer_->received(channel, message, now_);
    }
    // Everything that is due now: "channel:bytes", "channel!" for a hang-up.
    std::vector<std::string> said() {
        std::vector<std::string> all;
        for (const bench::Delivery& delivery : peer_->take_due(now_)) {
            all.push_back(std::to_string(delivery.channel) + (delivery.hang_up ? "!" : ":") +
                          bench::visible(delivery.bytes));
        }
        return all;
    }
    void pass(int milliseconds) { now_ += Milliseconds(milliseconds); }

    using Said = std::vector<std::string>;
    Time now_{std::chrono::hours(1)};
    std::optional<bench::ModemPeer> peer_;
};

TEST_F(Modem, AnswersOnTheChannelThatAsked) {
    play("on AT\n  answer OK\n");
    hear("at\r", 1);
    EXPECT_EQ(said(), Said{"1:\\r\\nOK\\r\\n"});
    EXPECT_EQ(said(), Said{});
    EXPECT_FALSE(peer_->next_due());
}

TEST_F(Modem, LineThatNoRuleKnowsStaysUnanswered) {
    play("on AT\n  answer OK\n");
    hear("AT+X\r");
    EXPECT_EQ(said(), Said{});
}

TEST_F(Modem, WaitHoldsBackWhatFollowsAndNothingElse) {
    play("on A\n  send 1\n  wait 200ms\n  send 2\non B\n  send b\n");
    hear("A\r");
    hear("B\r", 1);
    EXPECT_EQ(said(), (Said{"0:1", "1:b"}));
    ASSERT_TRUE(peer_->next_due());
    EXPECT_EQ(*peer_->next_due() - now_, Milliseconds(200));
    pass(199);
    EXPECT_EQ(said(), Said{});
    pass(1);
    EXPECT_EQ(said(), Said{"0:2"});
}

TEST_F(Modem, LineThatComesDuringAnAnswerIsAnsweredAfterIt) {
    play("on A\n  wait 1s\n  send a\non B\n  send b\n");
    hear("A\r");
    EXPECT_EQ(said(), Said{});
    hear("B\r");
    EXPECT_EQ(said(), Said{});
    pass(1000);
    EXPECT_EQ(said(), (Said{"0:a", "0:b"}));
}

TEST_F(Modem, ChunksCutTheRestOfTheRule) {
    play("on A\n  send abc\n  chunks 2\n  send abcde\non B\n  send whole\n");
    hear("A\r");
    EXPECT_EQ(said(), (Said{"0:abc", "0:ab", "0:cd", "0:e"}));
    hear("B\r");
    EXPECT_EQ(said(), Said{"0:whole"});
}

TEST_F(Modem, PromptTakesTextToCtrlZ) {
    play("on AT+CMGS=*\n  prompt\n  answer +CMGS: 1\non AT\n  answer OK\n");
    hear("AT+CMGS=\"1\"\r");
    EXPECT_EQ(said(), Said{"0:\\r\\n> "});
    hear("AT\r");  // text, not a command
    EXPECT_EQ(said(), Said{});
    hear("end\x1a");
    EXPECT_EQ(said(), Said{"0:\\r\\n+CMGS: 1\\r\\n"});
    hear("AT\r");
    EXPECT_EQ(said(), Said{"0:\\r\\nOK\\r\\n"});
}

TEST_F(Modem, EscapeGivesAMessageUp) {
    play("on AT+CMGS=*\n  prompt\n  answer +CMGS: 1\n");
    hear("AT+CMGS=\"1\"\r");
    said();
    hear("no\x1b");
    EXPECT_EQ(said(), Said{"0:\\r\\nOK\\r\\n"});
}

TEST_F(Modem, DataComesBackUntilItEnds) {
    for (const std::string end : {"+++", "ATH\r", "ath\r"}) {
        play("on ATD*\n  answer CONNECT\n  data echo\n  answer NO CARRIER\n");
        hear("ATD*99#\r");
        EXPECT_EQ(said(), Said{"0:\\r\\nCONNECT\\r\\n"});
        hear(std::string("\0+++", 4));
        EXPECT_EQ(said(), Said{"0:\\x00+++"});
        hear(end);
        EXPECT_EQ(said(), Said{"0:\\r\\nNO CARRIER\\r\\n"}) << end;
    }
}

TEST_F(Modem, SwallowedDataStaysAway) {
    play("on ATD*\n  data swallow\n");
    hear("ATD1\r");
    hear("bytes");
    EXPECT_EQ(said(), Said{});
}

TEST_F(Modem, UnsolicitedLinesComeByTheClock) {
    play("after 2s\n  only at\n  answer RING\nevery 5s\n  send tick\n");
    pass(1999);
    EXPECT_EQ(said(), Said{});
    pass(1);
    EXPECT_EQ(said(), Said{"1:\\r\\nRING\\r\\n"});
    pass(3000);
    EXPECT_EQ(said(), (Said{"0:tick", "1:tick"}));
    pass(5000);
    EXPECT_EQ(said(), (Said{"0:tick", "1:tick"}));
}

TEST_F(Modem, HangUpClosesTheChannelAndForgetsTheRest) {
    play("on A\n  hangup\n  wait 1s\n  send late\n");
    hear("A\r");
    EXPECT_EQ(said(), Said{"0!"});
    peer_->closed(0);
    pass(1000);
    EXPECT_EQ(said(), Said{});
}

}  // namespace
