// The modem processor or the app platform misbehaves, while all the other roads are used.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>

#include "faulted_module.h"

namespace {

using Ask = NumberedTraffic::Ask;
constexpr std::array<const char*, 3> kNames{"modem", "at", "uart"};

std::string unsolicited(int number) {
    return "\r\n+CREG: " + std::to_string(number) + "\r\n";
}

// --- Modem channels

struct Channel {
    FaultedModule& faulted;
    int index;

    [[nodiscard]] ModemChannel& modem() const { return faulted.module.channel(index); }
    [[nodiscard]] HostPort& host() const { return faulted.module.host_port(index); }
    [[nodiscard]] DeviceControl device() const { return faulted.module.device(modem().path()); }
    void wait_until_opened(int times) const { faulted.wait_until_served(modem().path(), times); }
    // Answers on the AT port's channel belong to whoever spoke last, which is to be the port.
    void speak_on_port() const {
        host().write("AT\r");
        faulted.traffic.run_until(
            [&] { return host().received().find("OK\r\n") != std::string::npos; },
            "an answer on the port");
        host().forget_received();
    }
};

void close_channel(const Channel& channel) {
    channel.modem().close();
}

void open_channel(const Channel& channel) {
    const int opens = channel.device().opens();
    channel.modem().open();
    channel.wait_until_opened(opens + 1);
}

void hang_up_thrice(const Channel& channel) {
    for (int time = 0; time < 3; ++time) {
        const int opens = channel.device().opens();
        channel.modem().hang_up();
        channel.wait_until_opened(opens + 1);
        channel.faulted.traffic.run(1);
    }
}

// A command is on its way and the modem says nothing.
void leave_unanswered(const Channel& channel) {
    channel.faulted.traffic.silence_modem(channel.index, true);
    channel.host().write("AT+COPS?\r");
}

void answer_late(const Channel& channel) {
    channel.faulted.traffic.silence_modem(channel.index, false);
    channel.faulted.traffic.run_until(
        [&] { return channel.host().received().find("OK\r\n") != std::string::npos; },
        "the late answer");
}

// The modem says no more, and would still listen.
void half_close(const Channel& channel) {
    shutdown(channel.modem().fd(), SHUT_WR);
}

void hang_up(const Channel& channel) {
    const int opens = channel.device().opens();
    channel.modem().hang_up();
    channel.wait_until_opened(opens + 1);
}

void refuse(const Channel& channel) {
    const int closes = channel.device().closes();
    channel.device().fail_opens(ENODEV, -1);
    channel.modem().hang_up();
    channel.faulted.module.wait_until([&] { return channel.device().closes() > closes; },
                                      "the close");
}

void refuse_no_more(const Channel& channel) {
    const int opens = channel.device().opens();
    channel.device().fail_opens(0, 0);
    channel.wait_until_opened(opens + 1);
}

void take_three_bytes_a_write(const Channel& channel) {
    channel.device().limit_writes(3);
}

void take_whole_writes(const Channel& channel) {
    channel.device().limit_writes(0);
}

void send_garbage(const Channel& channel) {
    const std::string bytes = garbage(5000);
    channel.speak_on_port();
    for (std::size_t at = 0; at < bytes.size(); at += 500) {
        channel.modem().send(bytes.substr(at, 500));
        channel.faulted.traffic.run(1);
    }
    channel.host().expect(bytes);
}

void flood(const Channel& channel) {
    constexpr int kMessages = 500;
    channel.speak_on_port();
    for (int number = 0; number < kMessages; ++number) {
        channel.modem().send(unsolicited(number));
        channel.faulted.traffic.step(std::chrono::milliseconds(0));
    }
    for (int number = 0; number < kMessages; ++number) {
        channel.host().expect(unsolicited(number));
    }
}

using ChannelRow = FaultRow<Channel>;

constexpr ChannelRow kChannelRows[] = {
    {"Vanishes", close_channel, open_channel},
    {"Returns", hang_up_thrice, nothing},
    {"Stalls", leave_unanswered, answer_late, false, true},
    {"HalfCloses", half_close, hang_up},
    {"Refuses", refuse, refuse_no_more},
    {"WritesShort", take_three_bytes_a_write, take_whole_writes, true},
    {"SendsGarbage", send_garbage, nothing, false, true},
    {"Floods", flood, nothing, false, true},
};

class FaultSuiteModem : public testing::TestWithParam<std::tuple<int, ChannelRow>> {};

TEST_P(FaultSuiteModem, OthersKeepTheirAnswersAndItIsServedAgain) {
    const auto& [index, row] = GetParam();
    Fault fault = row.at(index);
    if (!row.is_road_used_on) {
        fault.concerned = {kNames[static_cast<std::size_t>(index)]};
        if (index == 1 || (index == 2 && row.is_typed_on)) {
            fault.concerned.insert(fault.concerned.end(), {"udp", "qmi"});
        }
    }
    expect_survived(fault);
}

INSTANTIATE_TEST_SUITE_P(
    Channels, FaultSuiteModem,
    testing::Combine(testing::Range(0, 3), testing::ValuesIn(kChannelRows)), [](const auto& named) {
        return std::string(std::array{"Modem", "At",
                                      "Uart"}[static_cast<std::size_t>(std::get<0>(named.param))]) +
               std::get<1>(named.param).name;
    });

// --- The app platform

// Its own commands rest while it is at fault, so that none is lost with it.
void ask_the_modem_only(FaultedModule& faulted) {
    faulted.traffic.ask(Ask::modem);
    faulted.traffic.settle();
}

void kill(FaultedModule& faulted) {
    ask_the_modem_only(faulted);
    faulted.platform.kill();
    // Without it its commands are the modem's.
    faulted.traffic.ask(Ask::both);
}

void come_back(FaultedModule& faulted) {
    faulted.platform.listen();
    faulted.platform.wait_until_connected();
    const long before = faulted.traffic.total().from_platform;
    faulted.traffic.ask(Ask::both);
    faulted.traffic.run_until([&] { return faulted.traffic.total().from_platform > before; },
                              "an answer of the platform's");
}

void restart_thrice(FaultedModule& faulted) {
    for (int time = 0; time < 3; ++time) {
        faulted.traffic.run(2);
        faulted.platform.end();
        faulted.platform.listen();
    }
    faulted.platform.wait_until_connected();
}

// A command waits its 5 s out, and the answer comes when nobody waits for it any more.
void leave_unanswered(FaultedModule& faulted) {
    ask_the_modem_only(faulted);
    faulted.traffic.silence_platform(true);
    faulted.module.modem_port().write("AT+CGMR\r");
    const int asked = faulted.platform.answered;
    faulted.module.wait_until([&] { return faulted.platform.answered > asked; }, "the command");
}

void answer_late(FaultedModule& faulted) {
    faulted.traffic.silence_platform(false);
    faulted.platform.send("modem", "\r\nlate\r\n\r\nOK\r\n");
    faulted.module.modem_port().expect_up_to("late\r\n\r\nOK\r\n");
}

void half_close(FaultedModule& faulted) {
    ask_the_modem_only(faulted);
    const int reports = faulted.platform.reports("at");
    faulted.platform.half_close("at");
    faulted.platform.wait_for_report("at", reports + 1);
}

void refuse(FaultedModule& faulted) {
    ask_the_modem_only(faulted);
    faulted.platform.stop_listening();
    for (const char* port : kNames) {
        faulted.platform.hang_up(port);
    }
    faulted.traffic.ask(Ask::both);
}

// A pack must arrive whole: both halves are dropped.
void write_short(FaultedModule& faulted) {
    ask_the_modem_only(faulted);
    const std::string pack = bench::encode_pack(bench::PackKind::command, "\r\n+CUT: 1\r\n");
    for (const std::string& half : {pack.substr(0, 20), pack.substr(20)}) {
        const std::size_t from = faulted.module.log_size();
        faulted.platform.send_raw("modem", half);
        faulted.module.wait_until(
            [&] { return faulted.module.log_has("!!!!recv data pack head error.!!!!", from); },
            "a half to be dropped");
    }
}

void send_garbage(FaultedModule& faulted) {
    ask_the_modem_only(faulted);
    for (const char* port : kNames) {
        const std::size_t from = faulted.module.log_size();
        faulted.platform.send_raw(port, garbage(2000));
        faulted.module.wait_until(
            [&] { return faulted.module.log_has("!!!!recv data pack head error.!!!!", from); },
            "garbage to be dropped");
    }
}

// As fast as they are read: more than an area holds in one piece would end the daemon.
void flood(FaultedModule& faulted) {
    constexpr int kPacks = 300;
    constexpr int kAtATime = 30;
    faulted.traffic.finish("modem");
    for (int number = 0; number < kPacks; ++number) {
        faulted.platform.send("modem", unsolicited(number));
        faulted.traffic.step(std::chrono::milliseconds(0));
        if (number % kAtATime == kAtATime - 1) {
            faulted.module.modem_port().expect_up_to(unsolicited(number));
        }
    }
}

struct PlatformRow {
    const char* name;
    void (*begin)(FaultedModule&);
    void (*end)(FaultedModule&);
    std::vector<std::string> concerned;
};

void nothing_more(FaultedModule& /*faulted*/) {}

const std::vector<PlatformRow> kPlatformRows = {
    {"Vanishes", kill, come_back, {}},
    {"Returns", restart_thrice, nothing_more, {}},
    {"Stalls", leave_unanswered, answer_late, {"modem"}},
    {"HalfCloses", half_close, come_back, {}},
    {"Refuses", refuse, come_back, {}},
    {"WritesShort", write_short, nothing_more, {}},
    {"SendsGarbage", send_garbage, nothing_more, {}},
    {"Floods", flood, nothing_more, {"modem"}},
};

void PrintTo(const PlatformRow& row, std::ostream* out) {
    *out << row.name;
}

class FaultSuitePlatform : public testing::TestWithParam<PlatformRow> {};

TEST_P(FaultSuitePlatform, OthersKeepTheirAnswersAndItIsServedAgain) {
    const PlatformRow& row = GetParam();
    expect_survived(
        {.name = row.name, .concerned = row.concerned, .begin = row.begin, .end = row.end});
}

INSTANTIATE_TEST_SUITE_P(Platform, FaultSuitePlatform, testing::ValuesIn(kPlatformRows),
                         [](const auto& named) { return std::string(named.param.name); });

}  // namespace
