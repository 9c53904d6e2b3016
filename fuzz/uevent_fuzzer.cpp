// Kernel messages about the MHI channels: the parser, the merge of the halves, and the monitor
// thread's whole loop. Input: the datagrams, as texts.
#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "mhi_monitor.h"
#include "mhi_uevent.h"
#include "plain_rules.h"
#include "shared_int.h"
#include "world.h"

namespace {

constexpr int kMostDatagrams = 40;

// One digit for the channel's half, one for what became of it; 0 0 is unknown.
struct Plain {
    bool has_read = false;
    bool has_write = false;
    char what = 0;  // 'F' configured, 'C' connected, 'D' disconnected
};

vexa_mhi_ctrl_state_e state_of(const Plain& state) {
    if (!state.has_read && !state.has_write)
        return VEXA_MHI_CTRL_UNKNOWN;
    const bool is_whole = state.has_read && state.has_write;
    if (state.what == 'F')
        return is_whole         ? VEXA_MHI_CTRL_CONFIGURED_FULL
               : state.has_read ? VEXA_MHI_CTRL_CONFIGURED_R
                                : VEXA_MHI_CTRL_CONFIGURED_W;
    if (state.what == 'C')
        return is_whole         ? VEXA_MHI_CTRL_CONNECTED_FULL
               : state.has_read ? VEXA_MHI_CTRL_CONNECTED_R
                                : VEXA_MHI_CTRL_CONNECTED_W;
    return is_whole         ? VEXA_MHI_CTRL_DISCONNECTED_FULL
           : state.has_read ? VEXA_MHI_CTRL_DISCONNECTED_R
                            : VEXA_MHI_CTRL_DISCONNECTED_W;
}

// What one message says: the last of the three that it names counts; both halves make a whole.
Plain read_plainly(const std::string& text) {
    const auto says = [&text](const std::string& channel, const char* word) {
        return text.find("MHI_CHANNEL_STATE_" + channel + "=" + word) != std::string::npos;
    };
    Plain state;
    for (const char* word : {"CONFIGURED", "CONNECTED", "DISCONNECTED"}) {
        const bool has_read = says("32", word);
        const bool has_write = says("33", word);
        if (has_read || has_write)
            state = {has_read, has_write, word[0] == 'D' ? 'D' : word[3] == 'F' ? 'F' : 'C'};
    }
    return state;
}

// NULs between the strings become blanks, one blank stands behind each.
std::string join_plainly(std::string bytes) {
    if (!bytes.empty() && bytes.back() != '\0')
        bytes.push_back('\0');
    std::replace(bytes.begin(), bytes.end(), '\0', ' ');
    return bytes.substr(0, kUeventTextSize - 1);
}

vexa_mhi_ctrl_state_e merge_plainly(const Plain& before, const Plain& now) {
    const bool are_halves = before.what == now.what && before.has_read != before.has_write &&
                            now.has_read != now.has_write && before.has_read != now.has_read;
    return are_halves ? state_of({true, true, now.what}) : state_of(now);
}

Plain parse_one(const std::string& bytes) {
    std::array<char, kUeventTextSize> area;
    const std::string text = join_plainly(bytes);
    HOLDS(std::string(join_uevent(bytes, area)) == text);
    HOLDS(area[text.size()] == '\0');
    for (const std::size_t room : {std::size_t{1}, std::size_t{2}, text.size() / 2 + 1}) {
        const std::unique_ptr<char[]> narrow(new char[room]);
        HOLDS(join_uevent(bytes, {narrow.get(), room}) == text.substr(0, room - 1));
    }
    const Plain wanted = read_plainly(text);
    HOLDS(parse_mhi_text(text).state == state_of(wanted));
    const std::unique_ptr<char[]> exact(new char[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), exact.get());
    HOLDS(vexa_linux_parse_mhi_uevent(exact.get(), static_cast<int>(bytes.size())) ==
          state_of(wanted));
    return wanted;
}

// Two messages after each other, from each state to each.
void merge(const Plain& before, const Plain& now) {
    const MhiMerge merged = merge_mhi_state(state_of(before), state_of(now));
    HOLDS(merged.state == merge_plainly(before, now));
    HOLDS((merged.effect == MhiEffect::connected) ==
          (merged.state == VEXA_MHI_CTRL_CONNECTED_FULL));
    if (merged.effect == MhiEffect::nothing)
        HOLDS(merged.state == VEXA_MHI_CTRL_DISCONNECTED_FULL);
}

int releases() {
    int count = 0;
    sem_getvalue(&g_mhi_monitor_semaphore, &count);
    return count;
}

// The whole thread: what is too long is dropped, everything else counts.
void follow(const std::vector<std::string>& datagrams) {
    sem_init(&g_mhi_monitor_semaphore, 0, 0);
    store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_UNKNOWN);
    world::on_bind([&datagrams](int fd) {
        for (const std::string& datagram : datagrams)
            world::at(fd).incoming.push_back({datagram, {}, false});
    });
    HOLDS(world::run([] { vexa_linux_monitor_thread_entry(nullptr); }) == world::End::starved);
    Plain state;
    int connections = 0;
    for (const std::string& datagram : datagrams) {
        if (datagram.empty() || datagram.size() >= kUeventTextSize)
            continue;
        const Plain now = read_plainly(join_plainly(datagram));
        if (state_of(now) == VEXA_MHI_CTRL_UNKNOWN)
            continue;
        const bool is_pair = merge_plainly(state, now) != state_of(now);
        state = is_pair ? Plain{true, true, now.what} : now;
        connections += state_of(state) == VEXA_MHI_CTRL_CONNECTED_FULL ? 1 : 0;
    }
    HOLDS(load_shared(g_mhi_ctrl_state) == state_of(state));
    HOLDS(releases() == connections);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const world::Run run;
    FuzzInput input(data, size);
    HOLDS(vexa_linux_parse_mhi_uevent(nullptr, 4) == VEXA_MHI_CTRL_UNKNOWN);
    std::vector<std::string> datagrams;
    Plain before;
    for (int i = 0; i < kMostDatagrams && !input.empty(); ++i) {
        datagrams.push_back(input.text());
        const Plain now = parse_one(datagrams.back());
        if (state_of(now) != VEXA_MHI_CTRL_UNKNOWN)
            merge(before, now);
        before = now;
    }
    follow(datagrams);
    return 0;
}
