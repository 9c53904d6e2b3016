// A host that misbehaves on one of its ports, while all the other roads are used.
//
// A tty knows one hang-up for both directions, so that "half-closes" is here a port that can be
// written but not read.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>

#include "faulted_module.h"

namespace {

constexpr int kPipe = 3;
constexpr int kAtPort = 1;
constexpr int kUart = 2;
constexpr std::size_t kChunk = 4000;
constexpr int kModemChunks = 8;
constexpr int kModemChunk = 16000;

// The roads whose answers leave by this port.
std::vector<std::string> roads_of(int port) {
    switch (port) {
        case 0:
            return {"modem"};
        case kAtPort:
            return {"at"};
        case 2:
            return {"uart"};
        default:
            return {"pipe"};
    }
}

int channel_of(int port) {
    return port == kPipe ? kAtPort : port;
}

struct Port {
    FaultedModule& faulted;
    int index;

    [[nodiscard]] HostPort& host() const { return faulted.module.host_port(index); }
    [[nodiscard]] DeviceControl device() const { return faulted.module.device(host().path()); }
    [[nodiscard]] ModemChannel& channel() const {
        return faulted.module.channel(channel_of(index));
    }
    void wait_until_opened(int times) const { faulted.wait_until_served(host().path(), times); }
};

void unplug(const Port& port) {
    const int closes = port.device().closes();
    if (port.index == kPipe) {
        port.faulted.mhi->disconnect();
    }
    port.host().unplug();
    // The pipe's reader may wait for the channels already, and looks at the pipe behind that.
    if (port.index != kPipe) {
        port.faulted.module.wait_until([&] { return port.device().closes() > closes; },
                                       "the close");
    }
}

void plug(const Port& port) {
    const int opens = port.device().opens();
    port.host().plug();
    if (port.index == kPipe) {
        port.faulted.mhi->connect();
    }
    port.wait_until_opened(opens + 1);
}

void replug_thrice(const Port& port) {
    for (int time = 0; time < 3; ++time) {
        const int opens = port.device().opens();
        port.host().replug();
        port.wait_until_opened(opens + 1);
        port.faulted.traffic.run(1);
    }
}

// Answers on the AT port's channel belong to whoever spoke last, which is to be the port.
void speak_on(const Port& port) {
    port.host().write("AT\r");
    port.faulted.traffic.run_until(
        [&] { return port.host().received().find("OK\r\n") != std::string::npos; },
        "an answer on the port");
    port.host().forget_received();
}

bool is_full(const Port& port) {
    pollfd writable{port.host().slave_fd(), POLLOUT, 0};
    return poll(&writable, 1, 0) == 0;
}

// The modem says so much that the port is full and who writes to it waits.
void stop_reading(const Port& port) {
    speak_on(port);
    port.host().stop_reading();
    for (int time = 0; time < kModemChunks; ++time) {
        port.channel().send(std::string(kModemChunk, 'm'));
    }
    port.faulted.module.wait_until([&] { return is_full(port); }, "the port to be full");
}

void read_on(const Port& port) {
    port.host().read_on();
    port.faulted.traffic.run_until(
        [&] {
            const std::string& text = port.host().received();
            return std::count(text.begin(), text.end(), 'm') == kModemChunks * kModemChunk;
        },
        "all that the modem said");
}

// Ends whatever line was begun, so that the next one begins anew.
void end_line(const Port& port) {
    for (int time = 0; time < 2; ++time) {
        const int polls = port.device().polls();
        port.host().write("\r");
        port.faulted.module.wait_until(
            [&] {
                int unread = 0;
                ioctl(port.host().slave_fd(), FIONREAD, &unread);
                return unread == 0 && port.device().polls() > polls;
            },
            "the end of a line to be read");
    }
}

void fail_reads(const Port& port) {
    for (int time = 0; time < 3; ++time) {
        const int opens = port.device().opens();
        port.device().fail_reads(EIO, 1);
        port.host().write("x");
        // A read that is under way knows nothing of the next fault and takes its byte. So the byte
        // that was not read is read first; the UART's set-up throws it away.
        port.faulted.module.wait_until(
            [&] { return port.device().is_served(opens + 1, port.index == kUart ? 1 : 2); },
            "the byte to be read by a port opened again");
    }
    end_line(port);
}

void refuse(const Port& port) {
    const int closes = port.device().closes();
    port.device().fail_opens(ENODEV, -1);
    port.host().replug();
    port.faulted.module.wait_until([&] { return port.device().closes() > closes; }, "the close");
}

void refuse_no_more(const Port& port) {
    const int opens = port.device().opens();
    port.device().fail_opens(0, 0);
    port.wait_until_opened(opens + 1);
}

void take_one_byte_a_write(const Port& port) {
    port.device().limit_writes(1);
}

void take_whole_writes(const Port& port) {
    port.device().limit_writes(0);
}

void send_garbage(const Port& port) {
    for (int time = 0; time < 10; ++time) {
        port.host().write(garbage(kChunk));
        port.faulted.traffic.run(1);
    }
    end_line(port);
}

// A line far past its limit, in no hurry to end.
void flood(const Port& port) {
    for (int time = 0; time < 50; ++time) {
        port.host().write("AT+X=" + std::string(kChunk, 'x'));
        port.faulted.traffic.step(std::chrono::milliseconds(0));
    }
    end_line(port);
}

using Row = FaultRow<Port>;

constexpr Row kRows[] = {
    {"Vanishes", unplug, plug},
    {"Returns", replug_thrice, nothing},
    {"Stalls", stop_reading, read_on, false, true},
    {"HalfCloses", fail_reads, nothing, false, true},
    {"Refuses", refuse, refuse_no_more},
    {"WritesShort", take_one_byte_a_write, take_whole_writes, true},
    {"SendsGarbage", send_garbage, nothing, false, true},
    {"Floods", flood, nothing, false, true},
};

Fault fault_of(const Row& row, int port) {
    Fault fault = row.at(port);
    fault.link = port == kPipe ? Link::pcie : Link::usb;
    if (!row.is_road_used_on) {
        fault.concerned = roads_of(port);
    }
    if (row.is_typed_on && (port == kAtPort || port == kUart)) {
        fault.concerned.insert(fault.concerned.end(), {"udp", "qmi"});
    }
    return fault;
}

class FaultSuiteHost : public testing::TestWithParam<std::tuple<int, Row>> {};

TEST_P(FaultSuiteHost, OthersKeepTheirAnswersAndItIsServedAgain) {
    expect_survived(fault_of(std::get<1>(GetParam()), std::get<0>(GetParam())));
}

std::string name_of(const testing::TestParamInfo<std::tuple<int, Row>>& info) {
    constexpr const char* kPorts[] = {"ModemPort", "AtPort", "Uart", "PciePipe"};
    return std::string(kPorts[std::get<0>(info.param)]) + std::get<1>(info.param).name;
}

INSTANTIATE_TEST_SUITE_P(Ports, FaultSuiteHost,
                         testing::Combine(testing::Range(0, 4), testing::ValuesIn(kRows)), name_of);

// By rule a host that does not read holds up whoever writes to it, and there is one receiver of the
// platform's answers: these wait on every port, and are all there when the host reads on.
TEST(FaultSuiteStalledHost, HoldsUpThePlatformsAnswersOfAllPortsButNotTheModems) {
    FaultedModule faulted(Link::usb);
    auto& [module, platform] = faulted.both;
    NumberedTraffic& traffic = faulted.traffic;
    for (const char* road : {"modem", "at", "uart", "udp", "qmi"}) {
        traffic.finish(road);
    }
    stop_reading({faulted, 0});
    platform.send("modem", "\r\n+HELD: 1\r\n");
    platform.send("uart", "\r\n+HELD: 2\r\n");
    // The modem's road past the receiver, as often as it takes to know that nothing else came.
    traffic.ask(NumberedTraffic::Ask::modem);
    traffic.resume("at");
    traffic.run(20);
    EXPECT_EQ(module.uart_port().received(), "");
    read_on({faulted, 0});
    module.modem_port().expect_up_to("+HELD: 1\r\n");
    module.uart_port().expect_up_to("+HELD: 2\r\n");
    for (const char* road : {"modem", "uart", "udp", "qmi"}) {
        traffic.resume(road);
    }
    traffic.ask(NumberedTraffic::Ask::both);
    traffic.run(3);
    EXPECT_EQ(traffic.total().misroutes, 0) << traffic.complaints();
}

// What piles up behind a receiver that is held up comes in one read, and must fit its area.
TEST(FaultSuiteStalledHost, PacksThatPileUpBehindItEndTheDaemon) {
    FaultedModule faulted(Link::usb);
    auto& [module, platform] = faulted.both;
    for (const char* road : {"modem", "at", "uart", "udp", "qmi"}) {
        faulted.traffic.finish(road);
    }
    stop_reading({faulted, 0});
    platform.send("modem", "\r\n+HELD: 1\r\n");
    for (int pack = 0; pack < 20; ++pack) {
        platform.send("uart", std::string(1000, 'u'));
    }
    module.modem_port().read_on();
    EXPECT_EQ(module.daemon_exit_status(), 128 + SIGABRT);
}

}  // namespace
