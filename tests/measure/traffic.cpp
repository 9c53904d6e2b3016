#include "traffic.h"

#include <algorithm>

namespace {

using namespace std::chrono_literals;

constexpr std::string_view kModemAnswer = "\r\n+CFUN: 1\r\n\r\nOK\r\n";
constexpr std::string_view kEnd = "\r\nOK\r\n";
constexpr int kLogKeptCommands = 500;

// Each road in turn; the app platform answers the second and the last.
constexpr std::array<std::string_view, 4> kCommands{
    "AT+CFUN?\r", "AT+CGMR\r", "AT+CMGL=\"REC UNREAD\";+COPS?;+CSCS?;+CPBS=?\r", "AT+CGMM\r"};

std::string answer_as_platform(const bench::PlatformRequest& /*request*/) {
    return bench::encode_pack(bench::PackKind::command, "\r\nVEXA LTE module\r\n\r\nOK\r\n");
}

}  // namespace

MixedTraffic::MixedTraffic(ModuleWithPlatform& both)
    : module_(both.module), platform_(both.platform) {}

void MixedTraffic::run_to(int commands) {
    platform_.answer = answer_as_platform;
    platform_.wait_until_connected();
    int log_dropped = 0;
    while (!all_answered(commands)) {
        for (int index = 0; index < 3; ++index) {
            take_answer(index);
            if (ports_[static_cast<std::size_t>(index)].answered < commands) {
                type(index);
            }
        }
        module_.serve(20ms);
        answer_as_modem();
        if (ports_[0].answered - log_dropped >= kLogKeptCommands) {
            log_dropped = ports_[0].answered;
            module_.drop_log();
        }
    }
}

void MixedTraffic::answer_as_modem() {
    for (int index = 0; index < 3; ++index) {
        ModemChannel& channel = module_.channel(index);
        if (!channel.received().empty()) {
            channel.forget_received();
            channel.send(kModemAnswer);
        }
    }
}

void MixedTraffic::type(int index) {
    Port& port = ports_[static_cast<std::size_t>(index)];
    if (port.waits) {
        return;
    }
    port.waits = true;
    const auto turn = static_cast<std::size_t>(port.answered + index);
    module_.host_port(index).write(kCommands[turn % kCommands.size()]);
}

void MixedTraffic::take_answer(int index) {
    Port& port = ports_[static_cast<std::size_t>(index)];
    HostPort& host = module_.host_port(index);
    if (port.waits && host.received().ends_with(kEnd)) {
        host.forget_received();
        port.waits = false;
        ++port.answered;
    }
}

bool MixedTraffic::all_answered(int commands) const {
    return std::all_of(ports_.begin(), ports_.end(),
                       [&](const Port& port) { return port.answered >= commands; });
}
