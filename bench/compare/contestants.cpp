#include "contestants.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>

namespace compare {

namespace {

constexpr int64_t kDeadlineNs = 60'000'000'000;
constexpr int kLookAgainMs = 2;
// A process is at rest when all its threads were found asleep so often in a row.
constexpr int kRestfulLooks = 5;
constexpr const char* kPlatformPath = "/dev/socket/qmux_webs/server_webs";
// A program that counts instructions counts a repeated one once for each byte, so the C library is
// told to copy and clear without them.
constexpr const char* kCopyWithoutRepetition =
    "glibc.cpu.x86_rep_movsb_threshold=1073741824:glibc.cpu.x86_rep_stosb_threshold=1073741824";
constexpr std::string_view kSwitchLog = "AT+GTQXDMLOG=1\r";

std::vector<std::string> entries_of(const std::string& folder) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> open_folder(opendir(folder.c_str()), closedir);
    while (const dirent* entry = open_folder ? readdir(open_folder.get()) : nullptr) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    return names;
}

std::string process_folder(int pid) {
    return "/proc/" + std::to_string(pid);
}

int count_open_ptys(int pid) {
    const std::string folder = process_folder(pid) + "/fd/";
    int count = 0;
    for (const std::string& name : entries_of(folder)) {
        std::array<char, 256> target{};
        if (readlink((folder + name).c_str(), target.data(), target.size() - 1) > 0 &&
            std::string_view(target.data()).starts_with("/dev/pts/")) {
            ++count;
        }
    }
    return count;
}

bool is_asleep(const std::string& task_folder) {
    std::ifstream file(task_folder + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t name_end = text.rfind(')');
    return name_end != std::string::npos && text.substr(name_end).starts_with(") S");
}

bool is_at_rest(int pid) {
    const std::string tasks = process_folder(pid) + "/task/";
    const std::vector<std::string> names = entries_of(tasks);
    return !names.empty() && std::all_of(names.begin(), names.end(), [&](const std::string& name) {
        return is_asleep(tasks + name);
    });
}

void wait_for(const std::function<bool()>& done, const std::string& what) {
    const int64_t deadline = now_ns() + kDeadlineNs;
    while (!done()) {
        if (now_ns() > deadline) {
            throw Trouble("waited in vain for " + what);
        }
        poll(nullptr, 0, kLookAgainMs);
    }
}

int count_of(std::string_view text, std::string_view all) {
    int count = 0;
    for (auto at = all.find(text); at != all.npos; at = all.find(text, at + text.size())) {
        ++count;
    }
    return count;
}

}  // namespace

Contestant::Contestant(Rig& rig, const Kind& kind, const std::vector<std::string>& wrapper)
    : rig_(rig), kind_(kind), log_(memfd_create("log", MFD_CLOEXEC)) {
    fcntl(log_.get(), F_SETFL, O_APPEND);
    switch (kind.how) {
        case Kind::How::bare:
            break;
        case Kind::How::bridge:
            start_bridges({bench::program_folder() + "/vexa-plain-bridge"}, "");
            break;
        case Kind::How::resting_bridge:
            start_bridges({bench::program_folder() + "/vexa-plain-bridge", "--resting"}, "");
            break;
        case Kind::How::socat:
            start_bridges({"/usr/bin/socat"}, ",rawer");
            break;
        case Kind::How::daemon:
            start_daemon(wrapper);
            break;
    }
}

Contestant::~Contestant() {
    for (const bench::Child& child : children_) {
        rig_.space().signal(child.pid, SIGKILL);
    }
    for (std::size_t gone = 0; gone < children_.size();) {
        pollfd exits{rig_.space().exits_fd(), POLLIN, 0};
        if (poll(&exits, 1, static_cast<int>(kDeadlineNs / 1'000'000)) <= 0) {
            break;
        }
        while (rig_.space().next_exit()) {
            ++gone;
        }
    }
    platform_.reset();
    rig_.clean();
}

void Contestant::end() {
    for (const bench::Child& child : children_) {
        rig_.space().signal(child.pid, SIGTERM);
    }
    std::size_t gone = 0;
    wait_for(
        [&] {
            while (rig_.space().next_exit()) {
                ++gone;
            }
            return gone == children_.size();
        },
        std::string(kind_.name) + " to end");
    children_.clear();
}

void Contestant::spawn(bench::SpawnRequest request) {
    request.output = log_.get();
    const auto child = rig_.space().spawn(request);
    if (!child) {
        throw Trouble(rig_.space().error());
    }
    children_.push_back(*child);
}

void Contestant::start_bridges(const std::vector<std::string>& command, const char* options) {
    for (int index = 0; index < kPorts; ++index) {
        bench::SpawnRequest request;
        request.command = command;
        request.command.push_back(rig_.line(index).host_path + std::string(options));
        request.command.push_back(rig_.line(index).modem_path + std::string(options));
        spawn(std::move(request));
    }
    wait_until_ready(2);
}

void Contestant::start_daemon(const std::vector<std::string>& wrapper) {
    platform_ = std::make_unique<SmallPlatform>(rig_.space().listen(kPlatformPath, SOCK_STREAM));
    const std::string folder = bench::program_folder();
    bench::SpawnRequest request;
    request.command = wrapper;
    request.command.push_back(folder + "/vexa_at_client");
    request.environment["LD_PRELOAD"] = folder + "/lib/libvexa_intent.so";
    request.environment["VEXA_DS_TARGET"] = "35";
    if (!wrapper.empty()) {
        request.environment["GLIBC_TUNABLES"] = kCopyWithoutRepetition;
    }
    spawn(std::move(request));
    wait_until_ready(2 * kPorts);
    if (kind_.log_on_diag) {
        put_log_on_diag();
    }
}

void Contestant::wait_until_ready(int ptys_each) const {
    for (const bench::Child& child : children_) {
        int looks = 0;
        wait_for(
            [&] {
                const bool ready =
                    count_open_ptys(child.outer_pid) >= ptys_each && is_at_rest(child.outer_pid);
                looks = ready ? looks + 1 : 0;
                return looks >= kRestfulLooks;
            },
            std::string(kind_.name) + " to be ready");
    }
}

void Contestant::put_log_on_diag() {
    write_whole(rig_.line(0).host(), kSwitchLog);
    take_until(rig_.line(0).host(), kEnd, "the answer that switches the log");
    wait_until_ready(2 * kPorts);  // the command's wait is over
}

int Contestant::modem_end(int index) const {
    Line& line = rig_.line(index);
    return kind_.how == Kind::How::bare ? line.host_pty.slave.get() : line.modem();
}

double Contestant::cpu_seconds() const {
    double total_ns = 0;
    for (const bench::Child& child : children_) {
        const std::string tasks = process_folder(child.outer_pid) + "/task/";
        for (const std::string& name : entries_of(tasks)) {
            std::ifstream file(tasks + name + "/schedstat");
            double on_cpu_ns = 0;
            file >> on_cpu_ns;
            total_ns += on_cpu_ns;
        }
    }
    return total_ns / 1e9;
}

int Contestant::take_log_count(std::string_view text) {
    struct stat status {};
    fstat(log_.get(), &status);
    const auto size = static_cast<std::size_t>(status.st_size);
    int count = 0;
    if (size > 0) {
        void* mapped = mmap(nullptr, size, PROT_READ, MAP_SHARED, log_.get(), 0);
        if (mapped != MAP_FAILED) {
            count = count_of(text, {static_cast<const char*>(mapped), size});
            munmap(mapped, size);
        }
    }
    (void)!ftruncate(log_.get(), 0);
    return count;
}

}  // namespace compare
