// Random conversations with the daemon against the plain model, the conversations that were kept,
// and the model test itself: a rule broken on purpose is found and shown in a few steps.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "finding.h"
#include "random_conversation.h"
#include "shrink.h"

namespace model {
namespace {

constexpr std::size_t kSteps = 60;
constexpr std::uint64_t kConversations = VEXA_CONVERSATIONS;  // of a test

std::string read_file(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<std::string> kept_files() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(VEXA_KEPT_FOLDER)) {
        names.push_back(entry.path().stem().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string test_name(std::string text) {
    std::replace(text.begin(), text.end(), '-', '_');
    return text;
}

void expect_agreement(const Conversation& conversation, const std::string& origin) {
    const PlayResult result = play_untorn(conversation, {});
    EXPECT_FALSE(result.torn) << origin << ": the system tore it again and again";
    if (result.differs) {
        const Finding finding = pursue(conversation, result, {});
        ADD_FAILURE() << kept_text(finding, origin) << "kept as "
                      << keep(finding, VEXA_FOUND_FOLDER, origin);
    }
}

// --- random conversations

class ModelConversations : public testing::TestWithParam<std::uint64_t> {};
INSTANTIATE_TEST_SUITE_P(Seeds, ModelConversations, testing::Values(100, 200, 300, 400),
                         testing::PrintToStringParamName());

TEST_P(ModelConversations, Agree) {
    for (std::uint64_t seed = GetParam(); seed < GetParam() + kConversations; ++seed) {
        expect_agreement(random_conversation(seed, kSteps), "seed " + std::to_string(seed));
    }
}

// --- kept ones

class ModelKept : public testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(Files, ModelKept, testing::ValuesIn(kept_files()), [](const auto& file) {
    std::string name = file.param;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

TEST_P(ModelKept, AgreesAndIsPlayedWhole) {
    const auto parsed =
        parse_conversation(read_file(std::string(VEXA_KEPT_FOLDER) + "/" + GetParam() + ".txt"));
    ASSERT_EQ(parsed.error, "");
    EXPECT_NE(parsed.conversation.reason, "") << "say why it is kept";
    PlainModel model(parsed.conversation.world);
    for (const Step& step : parsed.conversation.steps) {
        EXPECT_TRUE(model.take(step)) << "the model cannot tell what comes of: " << to_text(step);
    }
    expect_agreement(parsed.conversation, GetParam());
}

// --- the model test itself

struct BrokenRow {
    Broken rule;
    std::size_t steps;  // that show it, at most

    friend std::ostream& operator<<(std::ostream& out, const BrokenRow& row) {
        return out << name_of(row.rule);
    }
};

class ModelBroken : public testing::TestWithParam<BrokenRow> {};
INSTANTIATE_TEST_SUITE_P(Rules, ModelBroken,
                         testing::Values(BrokenRow{Broken::ctrl_z_is_kept, 3},
                                         BrokenRow{Broken::typing_keeps_client, 4},
                                         BrokenRow{Broken::blanks_in_quotes_drop, 1}),
                         [](const auto& row) {
                             return test_name(std::string(name_of(row.param.rule)));
                         });

TEST_P(ModelBroken, IsFoundAndShownInAFewSteps) {
    PlayOptions options;
    options.broken = GetParam().rule;
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
        const auto conversation = random_conversation(seed, kSteps);
        const auto result = play_untorn(conversation, options);
        if (!result.differs || result.late) {
            continue;
        }
        const Finding finding = pursue(conversation, result, options);
        EXPECT_TRUE(finding.comes_again);
        EXPECT_LE(finding.conversation.steps.size(), GetParam().steps)
            << kept_text(finding, "a broken rule");
        EXPECT_FALSE(play_untorn(finding.conversation, {}).differs) << "the rule itself holds";
        return;
    }
    FAIL() << "60 conversations did not find the broken rule";
}

Conversation typed(const std::vector<std::string>& chunks) {
    Conversation conversation;
    for (const std::string& chunk : chunks) {
        conversation.steps.push_back({.who = Who::host, .place = kAt, .bytes = chunk, .packs = {}});
    }
    return conversation;
}

TEST(ModelShrink, LeavesWhatMattersOnly) {
    const auto fails = [](const Conversation& conversation) {
        const std::string text = to_text(conversation);
        const auto first = text.find("x");
        return first != std::string::npos && text.find("yz", first) != std::string::npos;
    };
    const auto shorter =
        shrink(typed({"a", "b", "cxd", "e", "f", "g", "hyzyz", "i", "j"}), fails, 1000);
    EXPECT_EQ(to_text(shorter), "host at x\nhost at yz\n");
}

TEST(ModelShrink, StopsAfterItsTries) {
    int tries = 0;
    const auto fails = [&](const Conversation& conversation) {
        ++tries;
        return conversation.steps.size() >= 3;
    };
    const auto shorter = shrink(typed(std::vector<std::string>(50, "x")), fails, 4);
    EXPECT_EQ(tries, 4);
    EXPECT_GE(shorter.steps.size(), 3U);
}

TEST(ModelText, ComesBackAsItWas) {
    for (std::uint64_t seed = 1; seed <= 40; ++seed) {
        const auto conversation = random_conversation(seed, 80);
        const auto parsed = parse_conversation(to_text(conversation));
        ASSERT_EQ(parsed.error, "");
        EXPECT_EQ(parsed.conversation.world, conversation.world);
        EXPECT_EQ(parsed.conversation.steps, conversation.steps);
    }
}

TEST(ModelText, WrongLinesAreNamed) {
    EXPECT_EQ(parse_conversation("host at AT\nhost atx AT\n").error,
              "line 2: cannot be read: host atx AT");
    EXPECT_EQ(parse_conversation("+ command x\n").error, "line 1: cannot be read: + command x");
    EXPECT_EQ(parse_conversation("platform at noise x\n").error,
              "line 1: cannot be read: platform at noise x");
}

TEST(ModelConversation, IsTheSameForTheSameSeed) {
    EXPECT_EQ(to_text(random_conversation(7, 50)), to_text(random_conversation(7, 50)));
    EXPECT_NE(to_text(random_conversation(7, 50)), to_text(random_conversation(8, 50)));
}

}  // namespace
}  // namespace model
