#include "figures.h"

#include <poll.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <future>

namespace compare {

namespace {

using nlohmann::json;

// Longer than both pauses of a modem reader together.
constexpr long kRestNs = 3'000'000;
constexpr std::string_view kDial = "ATD*99#\r";
constexpr std::string_view kConnected = "\r\nCONNECT\r\n";
// One line for each chunk that the daemon read from the modem.
constexpr std::string_view kChunkLine = "buf contains(";
constexpr double kMebibyte = 1024.0 * 1024.0;

double seconds_since(int64_t begin_ns) {
    return static_cast<double>(now_ns() - begin_ns) / 1e9;
}

void rest() {
    const timespec time{0, kRestNs};
    nanosleep(&time, nullptr);
}

void ask(int host, std::string_view command) {
    write_whole(host, command);
    take_until(host, kEnd, "an answer");
}

void warm_up(int host, std::string_view command, int commands) {
    for (int i = 0; i < commands; ++i) {
        ask(host, command);
    }
    rest();
}

struct Burst {
    std::vector<int64_t> answered;
    double seconds = 0;
};

Burst ask_for(int host, std::string_view command, double seconds) {
    Burst burst;
    burst.answered.reserve(1 << 18);
    const int64_t begin = now_ns();
    while (seconds_since(begin) < seconds) {
        ask(host, command);
        burst.answered.push_back(now_ns());
    }
    burst.seconds = seconds_since(begin);
    return burst;
}

// From each answer at the host to the next command at the modem.
std::vector<int64_t> times_until_taken(const Burst& burst, const std::vector<int64_t>& arrivals) {
    std::vector<int64_t> times;
    const std::size_t before = arrivals.size() - std::min(arrivals.size(), burst.answered.size());
    for (std::size_t at = 0; before + at + 1 < arrivals.size(); ++at) {
        times.push_back(arrivals[before + at + 1] - burst.answered[at]);
    }
    return times;
}

// No word in it means anything to a modem's user, and no byte ends a text.
std::string payload(std::size_t size) {
    std::string bytes(size, ' ');
    for (std::size_t at = 0; at < size; ++at) {
        bytes[at] = static_cast<char>('a' + at * 7 % 26);
    }
    return bytes;
}

std::size_t pour(int fd, const std::string& chunk, double seconds) {
    std::size_t poured = 0;
    for (const int64_t begin = now_ns(); seconds_since(begin) < seconds; poured += chunk.size()) {
        write_whole(fd, chunk);
    }
    return poured;
}

struct Stream {
    std::size_t bytes = 0;
    double seconds = 0;
};

// The far end reads for as long as bytes come; how many there are is known when all were written.
Stream stream(int from, int to, const std::string& chunk, double seconds) {
    std::atomic<std::size_t> wanted = SIZE_MAX;
    std::size_t taken = 0;
    auto reader = std::async(std::launch::async, [&] {
        while (taken < wanted) {
            pollfd ready{to, POLLIN, 0};
            if (poll(&ready, 1, 10) > 0) {
                taken += take_some(to, 65536, "data").size();
            }
        }
    });
    Stream result;
    const int64_t begin = now_ns();
    result.bytes = pour(from, chunk, seconds);
    wanted = result.bytes;
    reader.get();
    result.seconds = seconds_since(begin);
    return result;
}

}  // namespace

json measure_latency(Rig& rig, Contestant& contestant, const Amounts& amounts) {
    const AnsweringModem modem(contestant.modem_end(0));
    const int host = rig.line(0).host();
    warm_up(host, kModemCommand, amounts.warm_up);
    std::vector<int64_t> samples;
    samples.reserve(static_cast<std::size_t>(amounts.latency_commands));
    for (int i = 0; i < amounts.latency_commands; ++i) {
        const int64_t begin = now_ns();
        ask(host, kModemCommand);
        samples.push_back(now_ns() - begin);
        rest();
    }
    return {{"figure", "latency"}, {"samples_ns", samples}};
}

json measure_rests() {
    constexpr int kRests = 100;
    constexpr useconds_t kRestUs = 1000;
    std::vector<int64_t> samples;
    samples.reserve(kRests);
    std::thread([&samples] {
        prctl(PR_SET_TIMERSLACK, 1UL);  // as the daemon's threads
        for (int i = 0; i < kRests; ++i) {
            const int64_t begin = now_ns();
            usleep(kRestUs);
            samples.push_back(now_ns() - begin);
        }
    }).join();
    return {{"figure", "rest"}, {"samples_ns", samples}};
}

json measure_rate(Rig& rig, Contestant& contestant, const Amounts& amounts, int ports,
                  std::string_view command) {
    std::vector<std::unique_ptr<AnsweringModem>> modems;
    std::vector<std::future<Burst>> bursts;
    bursts.reserve(kPorts);
    for (int index = 0; index < ports; ++index) {
        modems.push_back(std::make_unique<AnsweringModem>(contestant.modem_end(index)));
        warm_up(rig.line(index).host(), command, amounts.warm_up);
    }
    const double cpu_before = contestant.cpu_seconds();
    for (int index = 0; index < ports; ++index) {
        bursts.push_back(std::async(std::launch::async, ask_for, rig.line(index).host(), command,
                                    amounts.rate_seconds));
    }
    std::size_t commands = 0;
    double rate = 0;
    std::vector<int64_t> taken;
    for (int index = 0; index < ports; ++index) {
        const auto at = static_cast<std::size_t>(index);
        const Burst burst = bursts[at].get();
        commands += burst.answered.size();
        rate += static_cast<double>(burst.answered.size()) / burst.seconds;
        modems[at]->finish();
        const std::vector<int64_t> times = times_until_taken(burst, modems[at]->arrivals());
        taken.insert(taken.end(), times.begin(), times.end());
    }
    const double cpu = contestant.cpu_seconds() - cpu_before;
    rest();
    return {{"figure", "rate"},
            {"ports", ports},
            {"command", command == kModemCommand ? "modem" : "platform"},
            {"commands_a_second", rate},
            {"taken_ns", taken},
            {"cpu_us_a_command", cpu * 1e6 / static_cast<double>(commands)}};
}

void dial(Rig& rig, Contestant& contestant) {
    const int host = rig.line(0).host();
    const AnsweringModem modem(contestant.modem_end(0), std::string(kConnected));
    write_whole(host, kDial);
    take_until(host, kConnected, "CONNECT");
    rest();
}

json measure_stream(Rig& rig, Contestant& contestant, const Amounts& amounts, Direction direction,
                    std::size_t chunk) {
    int from = rig.line(0).host();
    int to = contestant.modem_end(0);
    double seconds = amounts.to_modem_seconds;
    if (direction == Direction::to_host) {
        std::swap(from, to);
        seconds = amounts.to_host_seconds;
    }
    const std::string bytes = payload(chunk);
    stream(from, to, bytes, seconds / 10);
    contestant.take_log_count(kChunkLine);
    const double cpu_before = contestant.cpu_seconds();
    const Stream result = stream(from, to, bytes, seconds);
    const double cpu = contestant.cpu_seconds() - cpu_before;
    const double mebibytes = static_cast<double>(result.bytes) / kMebibyte;
    return {{"figure", "stream"},
            {"direction", direction == Direction::to_modem ? "to modem" : "to host"},
            {"chunk", chunk},
            {"bytes", result.bytes},
            {"seconds", result.seconds},
            {"mib_a_second", mebibytes / result.seconds},
            {"cpu_ms_a_mib", cpu * 1e3 / mebibytes},
            {"chunks_read", contestant.take_log_count(kChunkLine)}};
}

}  // namespace compare
