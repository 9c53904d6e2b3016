// Line settings of the UART, as they reach the terminal driver.
#include "serial_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "system_calls.h"

namespace {

using testing::HasSubstr;

// While one lives, settings applied by this thread are recorded; the driver of a pseudo terminal
// would change character size and parity.
struct RecordedSettings {
    explicit RecordedSettings(int what) : result(what) {
        taken.tcsetattr = [this](int, int how, const termios* applied) {
            action = how;
            settings = *applied;
            if (result != 0)
                errno = EIO;
            return result;
        };
    }

    int result;
    int action = -1;
    termios settings{};
    TakenCalls taken;
};

class SerialLine : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(openpty(&master_, &slave_, nullptr, nullptr, nullptr), 0);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
    }
    void TearDown() override {
        if (!taken_)
            take();
        close(master_);
        close(slave_);
    }
    void take() {
        taken_ = true;
        said_ = testing::internal::GetCapturedStdout();
        complained_ = testing::internal::GetCapturedStderr();
    }

    int master_ = -1;
    int slave_ = -1;
    bool taken_ = false;
    std::string said_;
    std::string complained_;
};

struct LineRow {
    int speed;
    int bits;
    char parity;
    int stop_bits;
    speed_t expected_speed;
    tcflag_t expected_control;  // beside CLOCAL and CREAD
    tcflag_t expected_input;
};

TEST_F(SerialLine, RowsOfSettings) {
    const LineRow rows[] = {
        {2400, 8, 'N', 1, B2400, CS8, 0},
        {4800, 8, 'N', 1, B4800, CS8, 0},
        {9600, 8, 'N', 1, B9600, CS8, 0},
        {115200, 8, 'N', 1, B115200, CS8, 0},
        {460800, 8, 'N', 1, B460800, CS8, 0},
        {57600, 8, 'N', 1, B9600, CS8, 0},  // any other speed
        {0, 8, 'N', 1, B9600, CS8, 0},
        {9600, 7, 'N', 1, B9600, CS7, 0},
        {9600, 6, 'N', 1, B9600, 0, 0},  // any other size leaves the bits 0
        {9600, 9, 'N', 1, B9600, 0, 0},
        {9600, 8, 'O', 1, B9600, CS8 | PARENB | PARODD, INPCK | ISTRIP},
        {9600, 8, 'E', 1, B9600, CS8 | PARENB, INPCK | ISTRIP},
        {9600, 8, 'x', 1, B9600, CS8, 0},
        {9600, 8, 'N', 2, B9600, CS8 | CSTOPB, 0},
        {9600, 8, 'N', 3, B9600, CS8, 0},  // any other count leaves it
    };
    for (const LineRow& row : rows) {
        const RecordedSettings recorded(0);
        EXPECT_EQ(set_uart_attr(slave_, row.speed, row.bits, row.parity, row.stop_bits), 0);
        const termios& set = recorded.settings;
        EXPECT_EQ(recorded.action, TCSANOW);
        EXPECT_EQ(cfgetispeed(&set), row.expected_speed) << row.speed;
        EXPECT_EQ(cfgetospeed(&set), row.expected_speed) << row.speed;
        EXPECT_EQ(set.c_cflag & ~static_cast<tcflag_t>(CBAUD),
                  CLOCAL | CREAD | row.expected_control)
            << row.bits << row.parity << row.stop_bits;
        EXPECT_EQ(set.c_iflag, row.expected_input) << row.parity;
        EXPECT_EQ(set.c_lflag, 0u);
        EXPECT_EQ(set.c_oflag, 0u);
        EXPECT_EQ(set.c_cc[VTIME], 0);
        EXPECT_EQ(set.c_cc[VMIN], 0);
    }
}

TEST_F(SerialLine, Speed57600Programs9600Baud) {
    EXPECT_EQ(set_uart_attr(slave_, 57600, 8, 'N', 1), 0);
    termios set{};
    ASSERT_EQ(tcgetattr(slave_, &set), 0);
    EXPECT_EQ(cfgetospeed(&set), static_cast<speed_t>(B9600));
    take();
    const std::string fd = std::to_string(slave_);
    EXPECT_EQ(said_, "set_uart_attr fd:" + fd +
                         ", nspeed:57600, nBits:8, event:N, stop:1.\r\nget fd:" + fd +
                         " old attr ok. \r\nset fd:" + fd + " done!\r\n");
}

TEST_F(SerialLine, WhatCameBeforeTheSettingsIsDropped) {
    termios raw{};
    ASSERT_EQ(tcgetattr(slave_, &raw), 0);
    cfmakeraw(&raw);
    ASSERT_EQ(tcsetattr(slave_, TCSANOW, &raw), 0);
    ASSERT_EQ(write(master_, "stale", 5), 5);
    pollfd input = {slave_, POLLIN, 0};
    ASSERT_EQ(poll(&input, 1, 60'000), 1);
    EXPECT_EQ(set_uart_attr(slave_, 9600, 8, 'N', 1), 0);
    int waiting = -1;
    ASSERT_EQ(ioctl(slave_, FIONREAD, &waiting), 0);
    EXPECT_EQ(waiting, 0);
}

TEST_F(SerialLine, NotATerminalFails) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(set_uart_attr(ends[0], 9600, 8, 'N', 1), -1);
    take();
    EXPECT_THAT(complained_, HasSubstr("SetupSerial 1\r\n: "));
    close(ends[0]);
    close(ends[1]);
}

TEST_F(SerialLine, RefusedSettingsFail) {
    const RecordedSettings recorded(-1);
    EXPECT_EQ(set_uart_attr(slave_, 9600, 8, 'N', 1), -1);
    take();
    EXPECT_THAT(complained_, HasSubstr("com set error.\r\n: "));
}

TEST_F(SerialLine, RawSetUpKeepsWhatWasFound) {
    termios found{};
    ASSERT_EQ(tcgetattr(slave_, &found), 0);
    xget1(slave_, &tio, &tiosfd);
    EXPECT_EQ(tiosfd.c_lflag, found.c_lflag);
    EXPECT_EQ(tio.c_lflag, found.c_lflag);
    {
        const RecordedSettings recorded(0);
        EXPECT_EQ(xset1(slave_, &tio, "/dev/ttyMSM1"), 0);
        EXPECT_EQ(recorded.action, TCSAFLUSH);
        termios raw = found;
        cfmakeraw(&raw);
        EXPECT_EQ(recorded.settings.c_lflag, raw.c_lflag);
        EXPECT_EQ(recorded.settings.c_iflag, raw.c_iflag);
        EXPECT_EQ(recorded.settings.c_oflag, raw.c_oflag);
        EXPECT_EQ(cfgetispeed(&recorded.settings), static_cast<speed_t>(B115200));
        EXPECT_EQ(cfgetospeed(&recorded.settings), static_cast<speed_t>(B115200));
    }
    EXPECT_EQ(tiosfd.c_lflag, found.c_lflag) << "the saved settings are not the working copy";
    take();
    EXPECT_EQ(said_, "tcsetattr for /dev/ttyMSM1 success.\r\n");
}

TEST_F(SerialLine, RefusedRawSetUpIsReported) {
    const RecordedSettings recorded(-1);
    xget1(slave_, &tio, &tiosfd);
    EXPECT_EQ(xset1(slave_, &tio, "/dev/ttyMSM1"), -1);
    take();
    EXPECT_EQ(said_, "can't tcsetattr for /dev/ttyMSM1.\r\n");
}

}  // namespace
