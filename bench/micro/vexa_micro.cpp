// Times what every command, frame, pack and log line goes through. Standard output is a file, as
// the daemon's may be; the report goes to standard error.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "command_match.h"
#include "gsm0710_frame.h"
#include "line_settings.h"
#include "log.h"
#include "platform_pack.h"
#include "shared_int.h"

namespace {

// The file must not grow for as long as a benchmark runs.
constexpr int kLinesKept = 10'000;

void forget_log() {
    fflush(stdout);
    rewind(stdout);
    (void)!ftruncate(fileno(stdout), 0);
}

struct NamedLine {
    const char* name;
    std::string text;
};

const std::vector<NamedLine>& lines() {
    static const std::vector<NamedLine> all{
        {"a modem command", "AT+CFUN?\r"},
        {"the first platform command", "AT+TPIN?\r"},
        {"the last platform command", "AT+GTMODEL?\r"},
        {"a command for both", "AT+CMEE=2\r"},
        {"an S-register", "ATS3=13\r"},
        {"digits in the name", "AT+WS46=12\r"},
        {"basic commands", "ATQ0V1E0\r"},
        {"a text message", "AT+CMGS=\"+491701234567\"\r"},
        {"16,000 letters", "AT" + std::string(16'000, 'x') + "\r"},
        {"16,000 digits", "AT" + std::string(16'000, '7') + "\r"},
        {"16,000 characters behind a name", "AT+CMGW=" + std::string(16'000, ';') + "\r"},
    };
    return all;
}

// Every question that a line is asked on its way, and the one that the platform's absence adds.
int classify(const char* line, int length) {
    return is_input_at_finished(line, length) + is_input_at_legal(line, length) +
           is_input_sms_atcmd(line, length) + is_input_hex_atcmd(line, length) +
           is_input_cmux_cmd(line, length) + is_input_combine_atcmd(line, length) +
           hijack_atcmd_to_app_platform(line, length) + forward_exc_atcmd_to_cp_too(line, length) +
           is_input_ppp_atcmd(line, length) + is_ght_atcmd(line);
}

void classify_line(benchmark::State& state, const std::string& line) {
    int count = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(classify(line.c_str(), static_cast<int>(line.size())));
        if (++count % kLinesKept == 0)
            forget_log();
    }
}

void check_sequence(benchmark::State& state) {
    UINT8 head[] = {0x09, kMuxControlUih, 0x05};
    for (auto _ : state) {
        benchmark::DoNotOptimize(head);
        benchmark::DoNotOptimize(make_fcs(head, sizeof head));
    }
}

void build_frame(benchmark::State& state) {
    const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
    char frame[kMuxAnswerArea];
    int length = 0;
    int count = 0;
    for (auto _ : state) {
        assemble_uih_respone_packet(9, text.data(), static_cast<int>(text.size()), frame, &length);
        benchmark::DoNotOptimize(frame);
        if (++count % kLinesKept == 0)
            forget_log();
    }
}

void build_platform_pack(benchmark::State& state) {
    const std::string payload(static_cast<std::size_t>(state.range(0)), 'x');
    char area[kPackAreaSize];
    for (auto _ : state) {
        benchmark::DoNotOptimize(build_pack(area, CMD_AT_CMD, payload));
        benchmark::ClobberMemory();
    }
}

void parse_platform_pack(benchmark::State& state) {
    std::string pack(kPackHeadsSize + static_cast<std::size_t>(state.range(0)), 'x');
    build_pack(pack, CMD_AT_CMD, std::string(static_cast<std::size_t>(state.range(0)), 'x'));
    for (auto _ : state) {
        benchmark::DoNotOptimize(pack.data());
        benchmark::DoNotOptimize(first_pack(pack));
    }
}

void log_line(benchmark::State& state) {
    store_shared(g_qxdm_log, static_cast<int>(state.range(0)));
    int count = 0;
    for (auto _ : state) {
        VEXA_LOG(
            "====>>>write_to_device in, g_loc_udp_at_server_send_socket:%d, to_filename:%s, "
            "to_fd:%d.\r\n",
            -1, "/dev/at_usb0", 12);
        if (++count % kLinesKept == 0)
            forget_log();
    }
    store_shared(g_qxdm_log, 0);
}

void remove_spaces(benchmark::State& state) {
    std::string line = "AT + CMGW = \"a b\"";
    line.resize(static_cast<std::size_t>(state.range(0)), ' ');
    line += '\r';
    std::string area(line.size() + 2, '\0');
    int length = 0;
    for (auto _ : state) {
        input_atcmd_ignore_spaceback(line.c_str(), static_cast<int>(line.size()), area.data(),
                                     &length);
        benchmark::DoNotOptimize(area.data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

BENCHMARK(check_sequence)->Name("check sequence");
BENCHMARK(build_frame)->Name("build frame, bytes")->Arg(10)->Arg(127);
BENCHMARK(build_platform_pack)->Name("build pack, bytes")->Arg(10)->Arg(4096);
BENCHMARK(parse_platform_pack)->Name("parse pack, bytes")->Arg(10)->Arg(4096);
BENCHMARK(log_line)->Name("log line, 0: to a file, 1: nobody listens")->Arg(0)->Arg(1);
BENCHMARK(remove_spaces)->Name("remove spaces, bytes")->Arg(20)->Arg(16'000);

}  // namespace

int main(int argc, char** argv) {
    for (const NamedLine& line : lines())
        benchmark::RegisterBenchmark((std::string("classify: ") + line.name).c_str(), classify_line,
                                     line.text);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    FILE* file = tmpfile();
    if (file == nullptr || dup2(fileno(file), STDOUT_FILENO) < 0) {
        perror("a file for the log");
        return 1;
    }
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
