#include "mhi_uevent.h"

#include <cstdio>
#include <random>
#include <string>

#include "gtest/gtest.h"

namespace {

using namespace std::string_literals;

struct JoinRow {
    std::string uevent;
    std::string text;
};

TEST(MhiUevent, StringsAreJoinedEachFollowedByOneBlank) {
    const JoinRow rows[] = {
        {"", ""},
        {"a\0"s, "a "},
        {"a", "a "},  // the end counts as an end of string
        {"a\0b\0"s, "a b "},
        {"a\0b"s, "a b "},
        {"\0"s, " "},
        {"a\0\0b\0"s, "a  b "},  // an empty string is still followed by its blank
    };
    for (const JoinRow& row : rows) {
        std::array<char, kUeventTextSize> area;
        area.fill('x');
        EXPECT_EQ(join_uevent(row.uevent, area), row.text);
        EXPECT_EQ(area[row.text.size()], '\0');
        EXPECT_EQ(area[row.text.size() + 1], 'x') << "written past the end of " << row.text;
    }
}

struct CutRow {
    std::size_t length;  // of the uevent, without a NUL at its end
    std::size_t joined;
};

TEST(MhiUevent, WhatDoesNotFitTheTextIsCutAndNeverWrittenPast) {
    const CutRow rows[] = {
        {1021, 1022}, {1022, 1023},  // the blank is the last character that fits
        {1023, 1023},                // the blank is cut
        {1024, 1023}, {5000, 1023},
    };
    for (const CutRow& row : rows) {
        std::array<char, kUeventTextSize + 1> area;
        area.back() = 'x';
        const std::string uevent(row.length, 'k');
        const std::string_view text = join_uevent(uevent, std::span(area).first<kUeventTextSize>());
        EXPECT_EQ(text.size(), row.joined) << row.length;
        EXPECT_EQ(area[text.size()], '\0') << row.length;
        EXPECT_EQ(area.back(), 'x') << row.length;
    }
}

// The joining as it is defined: "%s " from each string's start, on by what was printed.
std::string joined_by_snprintf(const std::string& uevent) {
    std::string text;
    for (std::size_t at = 0; at < uevent.size();) {
        std::array<char, 2048> part;
        const int printed = snprintf(part.data(), part.size(), "%s ", uevent.c_str() + at);
        text.append(part.data(), static_cast<std::size_t>(printed));
        at += static_cast<std::size_t>(printed);
    }
    return text;
}

TEST(MhiUevent, RandomUeventsAreJoinedAsDefined) {
    std::mt19937 random(3233);
    for (int round = 0; round < 2000; ++round) {
        std::string uevent(random() % 1000, '\0');
        for (char& c : uevent)
            c = random() % 8 == 0 ? '\0' : static_cast<char>('!' + random() % 90);
        std::array<char, kUeventTextSize> area;
        ASSERT_EQ(join_uevent(uevent, area), joined_by_snprintf(uevent)) << round;
    }
}

struct ParseRow {
    const char* text;
    vexa_mhi_ctrl_state_e state;
};

TEST(MhiUevent, LaterKeysOverrideEarlierOnesInTheOrderOfTheTest) {
    const ParseRow rows[] = {
        {"", VEXA_MHI_CTRL_UNKNOWN},
        {"ACTION=change SUBSYSTEM=mhi ", VEXA_MHI_CTRL_UNKNOWN},
        {"MHI_CHANNEL_STATE_32=CONFIGURED ", VEXA_MHI_CTRL_CONFIGURED_R},
        {"MHI_CHANNEL_STATE_33=CONFIGURED ", VEXA_MHI_CTRL_CONFIGURED_W},
        {"MHI_CHANNEL_STATE_32=CONNECTED ", VEXA_MHI_CTRL_CONNECTED_R},
        {"MHI_CHANNEL_STATE_33=CONNECTED ", VEXA_MHI_CTRL_CONNECTED_W},
        {"MHI_CHANNEL_STATE_32=DISCONNECTED ", VEXA_MHI_CTRL_DISCONNECTED_R},
        {"MHI_CHANNEL_STATE_33=DISCONNECTED ", VEXA_MHI_CTRL_DISCONNECTED_W},
        // both channels in one message, in either order of the text
        {"MHI_CHANNEL_STATE_32=CONFIGURED MHI_CHANNEL_STATE_33=CONFIGURED ",
         VEXA_MHI_CTRL_CONFIGURED_FULL},
        {"MHI_CHANNEL_STATE_33=CONFIGURED MHI_CHANNEL_STATE_32=CONFIGURED ",
         VEXA_MHI_CTRL_CONFIGURED_FULL},
        {"MHI_CHANNEL_STATE_33=CONNECTED MHI_CHANNEL_STATE_32=CONNECTED ",
         VEXA_MHI_CTRL_CONNECTED_FULL},
        {"MHI_CHANNEL_STATE_33=DISCONNECTED MHI_CHANNEL_STATE_32=DISCONNECTED ",
         VEXA_MHI_CTRL_DISCONNECTED_FULL},
        // mixed: the later test wins, and only its own counterpart makes a pair
        {"MHI_CHANNEL_STATE_32=CONFIGURED MHI_CHANNEL_STATE_33=CONNECTED ",
         VEXA_MHI_CTRL_CONNECTED_W},
        {"MHI_CHANNEL_STATE_33=CONFIGURED MHI_CHANNEL_STATE_32=CONNECTED ",
         VEXA_MHI_CTRL_CONNECTED_R},
        {"MHI_CHANNEL_STATE_32=CONNECTED MHI_CHANNEL_STATE_33=DISCONNECTED ",
         VEXA_MHI_CTRL_DISCONNECTED_W},
        {"MHI_CHANNEL_STATE_32=DISCONNECTED MHI_CHANNEL_STATE_33=CONNECTED ",
         VEXA_MHI_CTRL_DISCONNECTED_R},
        // every key at once: the last pair of tests wins
        {"MHI_CHANNEL_STATE_32=CONFIGURED MHI_CHANNEL_STATE_33=CONFIGURED "
         "MHI_CHANNEL_STATE_32=CONNECTED MHI_CHANNEL_STATE_33=CONNECTED "
         "MHI_CHANNEL_STATE_32=DISCONNECTED MHI_CHANNEL_STATE_33=DISCONNECTED ",
         VEXA_MHI_CTRL_DISCONNECTED_FULL},
        // keys of other channels and unknown values
        {"MHI_CHANNEL_STATE_100=CONNECTED ", VEXA_MHI_CTRL_UNKNOWN},
        {"MHI_CHANNEL_STATE_32=CONN ", VEXA_MHI_CTRL_UNKNOWN},
        {"MHI_CHANNEL_STATE_32=connected ", VEXA_MHI_CTRL_UNKNOWN},
        {"MHI_CHANNEL_STATE=CONNECTED ", VEXA_MHI_CTRL_UNKNOWN},
        {"MHI_CHANNEL_STATE_32 =CONNECTED ", VEXA_MHI_CTRL_UNKNOWN},
        // the keys are looked for anywhere in the text
        {"XMHI_CHANNEL_STATE_32=CONNECTEDX ", VEXA_MHI_CTRL_CONNECTED_R},
    };
    for (const ParseRow& row : rows)
        EXPECT_EQ(parse_mhi_text(row.text).state, row.state) << row.text;
}

TEST(MhiUevent, TheRowsOfTheHitsAreReported) {
    const MhiUevent found =
        parse_mhi_text("MHI_CHANNEL_STATE_32=CONNECTED MHI_CHANNEL_STATE_33=DISCONNECTED ");
    EXPECT_EQ(found.hits, (std::array<bool, 6>{false, false, true, false, false, true}));
    EXPECT_EQ(parse_mhi_text("SUBSYSTEM=mhi ").hits, (std::array<bool, 6>{}));
}

// Row: the current state; column: the reported one. The state after it, and what comes with it:
// '-' nothing, 'n' only the log line, 'p' the post and the diagnostic switch.
struct MergeCell {
    int state;
    char effect;
};

MergeCell plain(int reported) {
    if (reported == VEXA_MHI_CTRL_CONNECTED_FULL)
        return {reported, 'p'};
    if (reported == VEXA_MHI_CTRL_DISCONNECTED_FULL)
        return {reported, '-'};
    return {reported, 'n'};
}

MergeCell expected_merge(int current, int reported) {
    struct PairRow {
        int one;
        int other;
        MergeCell cell;
    };
    const PairRow pairs[] = {
        {7, 8, {9, 'n'}}, {8, 7, {9, 'n'}},  // configured
        {4, 5, {6, 'p'}}, {5, 4, {6, 'p'}},  // connected
        {1, 2, {3, '-'}}, {2, 1, {3, '-'}},  // disconnected
    };
    for (const PairRow& pair : pairs)
        if (pair.one == current && pair.other == reported)
            return pair.cell;
    return plain(reported);
}

char effect_letter(MhiEffect effect) {
    switch (effect) {
        case MhiEffect::nothing:
            return '-';
        case MhiEffect::state_only:
            return 'n';
        case MhiEffect::connected:
            return 'p';
    }
    return '?';
}

TEST(MhiUevent, EveryStateMergesWithEveryReport) {
    for (int current = 0; current <= 9; ++current) {
        for (int reported = 0; reported <= 9; ++reported) {
            const MergeCell expected = expected_merge(current, reported);
            const MhiMerge merged = merge_mhi_state(static_cast<vexa_mhi_ctrl_state_e>(current),
                                                    static_cast<vexa_mhi_ctrl_state_e>(reported));
            EXPECT_EQ(merged.state, expected.state) << current << " " << reported;
            EXPECT_EQ(effect_letter(merged.effect), expected.effect) << current << " " << reported;
        }
    }
}

}  // namespace
