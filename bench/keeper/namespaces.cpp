#include "namespaces.h"

#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "unique_fd.h"

namespace bench {
namespace {

// Where the new /dev is put together before it is moved over the old one.
constexpr const char* kAside = "/tmp";
constexpr const char* kOldEtc = "/dev/.bench/etc";
constexpr int kPrivate = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWPID;

std::string failure(const std::string& what) {
    return what + ": " + strerror(errno);
}

bool write_file(const char* path, const std::string& text) {
    const UniqueFd file(open(path, O_WRONLY | O_CLOEXEC));
    return file.is_open() &&
           write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool map_ids(uid_t user, gid_t group) {
    return write_file("/proc/self/setgroups", "deny") &&
           write_file("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") &&
           write_file("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

std::string advice() {
    return failure("the module's namespaces cannot be made") +
           "\n  allow user namespaces (sysctl kernel.unprivileged_userns_clone=1,"
           " user.max_user_namespaces above 0,"
           "\n  kernel.apparmor_restrict_unprivileged_userns=0), or run as root; in a container,"
           "\n  allow unshare and mount (--security-opt seccomp=unconfined"
           " --security-opt apparmor=unconfined --cap-add SYS_ADMIN)";
}

// A user namespace for root too: without one of its own, a network namespace receives the uevents
// of the host. Where it is refused to root, root goes without.
std::string unshare_all() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWUSER | kPrivate) == 0) {
        return map_ids(user, group) ? "" : failure("the user's id cannot be mapped");
    }
    if (user == 0 && unshare(kPrivate) == 0) {
        return "";
    }
    return advice();
}

bool bind_node(const char* name) {
    const std::string from = std::string("/dev/") + name;
    const std::string to = std::string(kAside) + "/" + name;
    const UniqueFd file(open(to.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    return file.is_open() && mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

bool make_folder(const std::string& name) {
    return mkdir((std::string(kAside) + "/" + name).c_str(), 0755) == 0;
}

bool link_to(const char* target, const char* name) {
    return symlink(target, (std::string(kAside) + "/" + name).c_str()) == 0;
}

std::string lay_dev() {
    if (mount("tmpfs", kAside, "tmpfs", MS_NOSUID, "mode=755,size=64m") != 0) {
        return failure("no tmpfs for /dev");
    }
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
        if (!bind_node(name)) {
            return failure(std::string("/dev/") + name + " cannot be taken over");
        }
    }
    if (!make_folder("pts") || !make_folder("socket") || !make_folder("socket/qmux_webs") ||
        !make_folder(".bench") || !make_folder(".bench/etc")) {
        return failure("no folders in /dev");
    }
    const std::string terminals = std::string(kAside) + "/pts";
    if (mount("devpts", terminals.c_str(), "devpts", MS_NOSUID,
              "newinstance,ptmxmode=0666,mode=0620") != 0) {
        return failure("no terminals of its own");
    }
    if (!link_to("pts/ptmx", "ptmx") || !link_to("/proc/self/fd", "fd")) {
        return failure("no links in /dev");
    }
    return mount(kAside, "/dev", nullptr, MS_MOVE, nullptr) == 0 ? ""
                                                                 : failure("/dev stays as it is");
}

// The old entries as links in a tmpfs, so that new ones can stand beside them; /etc/data only new.
std::string lay_etc() {
    if (mount("/etc", kOldEtc, nullptr, MS_BIND | MS_REC, nullptr) != 0 ||
        mount("tmpfs", "/etc", "tmpfs", MS_NOSUID, "mode=755,size=4m") != 0) {
        return failure("/etc stays as it is");
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(kOldEtc), closedir);
    if (folder == nullptr) {
        return failure("the old /etc cannot be read");
    }
    while (const dirent* entry = readdir(folder.get())) {
        const std::string name = static_cast<const char*>(entry->d_name);
        if (name == "." || name == ".." || name == "data") {
            continue;
        }
        if (symlink((kOldEtc + ("/" + name)).c_str(), ("/etc/" + name).c_str()) != 0) {
            return failure("/etc/" + name + " cannot be linked");
        }
    }
    return mkdir("/etc/data", 0755) == 0 ? "" : failure("no /etc/data");
}

std::string raise_loopback() {
    const UniqueFd socket_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    strncpy(static_cast<char*>(request.ifr_name), "lo", IFNAMSIZ - 1);
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    return ioctl(socket_fd.get(), SIOCSIFFLAGS, &request) == 0 ? "" : failure("no loopback");
}

std::string hide_sys() {
    return mount("tmpfs", "/sys", "tmpfs", MS_NOSUID, "mode=755,size=4m") == 0
               ? ""
               : failure("/sys stays as it is");
}

std::string cut_off() {
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0
               ? ""
               : failure("mounts stay shared");
}

}  // namespace

std::string enter_namespaces() {
    for (const auto step : {unshare_all, cut_off, lay_dev, lay_etc, hide_sys, raise_loopback}) {
        std::string error = step();
        if (!error.empty()) {
            return error;
        }
    }
    return "";
}

}  // namespace bench
