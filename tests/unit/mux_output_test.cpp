// Answers of any length as frames that one length byte can tell.
#include "mux_output.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

#include "gsm0710_frame.h"
#include "refusing_mutex.h"
#include "system_calls.h"

namespace {

class MuxOutput : public testing::Test {
  protected:
    void SetUp() override {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        host_ = ends[0];
        fd_ = ends[1];
    }
    void TearDown() override {
        close_device();
        close(host_);
    }
    void close_device() {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }
    int write_answer(int dlc, std::string_view answer) {
        return write_mux_answer(dlc, answer.data(), static_cast<int>(answer.size()), &fd_,
                                "/dev/ttyMSM1", &mutex_);
    }
    // Everything that was written; closes the device so that the end is known.
    std::string written() {
        close_device();
        std::string all;
        char area[4096];
        for (ssize_t count = read(host_, area, sizeof area); count > 0;
             count = read(host_, area, sizeof area))
            all.append(area, static_cast<std::size_t>(count));
        return all;
    }

    int host_ = -1;
    int fd_ = -1;
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// The payloads of a run of frames on one address, each with its flags.
std::vector<std::string> payloads_of(std::string_view frames, char address) {
    std::vector<std::string> payloads;
    while (!frames.empty()) {
        const std::size_t length = static_cast<UINT8>(frames.at(3)) / 2U;
        EXPECT_EQ(frames[0], '\xF9');
        EXPECT_EQ(frames[1], address);
        EXPECT_EQ(frames[2], '\xEF');
        EXPECT_EQ(static_cast<UINT8>(frames[3]) & 1, 1);
        EXPECT_EQ(static_cast<UINT8>(frames.at(4 + length)),
                  make_fcs(reinterpret_cast<const UINT8*>(frames.data()) + 1, 3));
        EXPECT_EQ(frames.at(5 + length), '\xF9');
        payloads.emplace_back(frames.substr(4, length));
        frames.remove_prefix(6 + length);
    }
    return payloads;
}

TEST_F(MuxOutput, AnswersAreSplitAtTheLargestFrame) {
    const struct {
        std::size_t length;
        std::vector<std::size_t> frames;
    } rows[] = {
        {1, {1}},          {127, {127}},         {128, {127, 1}},
        {254, {127, 127}}, {255, {127, 127, 1}}, {1000, {127, 127, 127, 127, 127, 127, 127, 111}},
    };
    for (const auto& row : rows) {
        std::string answer;
        for (std::size_t i = 0; i < row.length; ++i) answer.push_back(static_cast<char>(i));
        testing::internal::CaptureStdout();
        EXPECT_EQ(write_answer(0x0B, answer), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout().find("input error"), std::string::npos)
            << row.length << ": no frame of nothing is asked for";
        std::string joined;
        std::vector<std::size_t> lengths;
        for (const std::string& payload : payloads_of(written(), '\x09')) {
            lengths.push_back(payload.size());
            joined += payload;
        }
        EXPECT_EQ(lengths, row.frames) << row.length;
        EXPECT_EQ(joined, answer) << row.length;
        close(host_);
        SetUp();
    }
}

// 27.010 does not tell whose frame it is: another answer's frames between these would mix the two.
TEST_F(MuxOutput, TheFramesOfAnAnswerAreWrittenUnderOneHoldOfThePortsMutex) {
    const std::string answer(300, 'a');
    std::vector<int> states;
    {
        TakenCalls taken;
        taken.write = [&](int, const void*, std::size_t size) {
            states.push_back(pthread_mutex_trylock(&mutex_));
            if (states.back() == 0)
                pthread_mutex_unlock(&mutex_);
            return static_cast<ssize_t>(size);
        };
        EXPECT_EQ(write_answer(0x0B, answer), 0);
    }
    EXPECT_THAT(states, testing::ElementsAre(EBUSY, EBUSY, EBUSY));
    const RefusingMutex held(mutex_);
    EXPECT_EQ(held.tries_of([&] { write_answer(0x0B, answer); }), 1);
}

TEST_F(MuxOutput, AnswerWithoutAChannelIsNotWritten) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(write_answer(0, "OK"), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::HasSubstr("no channel for 2 bytes of an answer yet, dropped.0.0.\r\n"));
    EXPECT_EQ(written(), "");
}

TEST_F(MuxOutput, NothingToWriteWritesNothing) {
    EXPECT_EQ(write_answer(0x0B, ""), 0);
    EXPECT_EQ(written(), "");
}

TEST_F(MuxOutput, ClosedPortIsAFailureAndLeavesTheMutexFree) {
    close_device();
    EXPECT_EQ(write_answer(0x0B, std::string(300, 'a')), -1);
    EXPECT_EQ(pthread_mutex_trylock(&mutex_), 0);
    pthread_mutex_unlock(&mutex_);
}

}  // namespace
