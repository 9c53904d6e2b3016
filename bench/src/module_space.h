// The namespaces of one simulated module, seen from outside. Everything started in them ends when
// this object does. Single-threaded use.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "device_state.h"
#include "unique_fd.h"

namespace bench {

struct Pty {
    UniqueFd master;   // non-blocking
    UniqueFd slave;    // kept so that settings and unread data last while the daemon reopens
    std::string name;  // as seen inside
};

struct Child {
    int pid = -1;        // inside; what signal() and the exits mean
    int outer_pid = -1;  // for /proc
};

struct Exit {
    int pid = -1;
    int status = 0;  // as of waitpid
};

struct SpawnRequest {
    std::vector<std::string> command;
    std::map<std::string, std::string> environment;  // beside the caller's own
    int output = -1;                                 // standard output and error; -1: dropped
    int input = -1;                                  // -1: none
};

class ModuleSpace {
  public:
    ModuleSpace() = default;
    ~ModuleSpace();
    ModuleSpace(const ModuleSpace&) = delete;
    ModuleSpace& operator=(const ModuleSpace&) = delete;

    // False: error() says what to do about it. `tools` is the folder with the keeper.
    bool open(const std::string& tools);
    const std::string& error() const { return error_; }

    // A pty shown at a path of the module's, in one step in place of what was there.
    std::optional<Pty> make_pty(const std::string& path);
    // A listening UNIX socket, non-blocking; type as of socket(2).
    UniqueFd listen(const std::string& path, int type);
    bool remove(const std::string& path);
    bool write_file(const std::string& path, const std::string& text);
    // A socket of the module's network.
    UniqueFd socket(int domain, int type, int protocol = 0);
    std::optional<Child> spawn(const SpawnRequest& request);
    bool signal(int pid, int number);
    // A uevent from the kernel itself; strings separated by line ends.
    bool send_uevent(const std::string& text);

    // Readable when a child may have ended; next_exit tells which, without waiting.
    int exits_fd() const { return control_.get(); }
    std::optional<Exit> next_exit();

    // The same file as the module sees it, from outside.
    std::string outside(const std::string& path) const;
    // The device words shared with the shim; index as in kDevicePaths.
    DeviceState& device(std::size_t index) { return state_->devices[index]; }
    // Whether the recording tells all that the daemon has sent so far.
    bool is_all_recorded() const {
        return state_ == nullptr || state_->sends_begun == state_->sends_recorded;
    }
    // Makes a blocked poll of a device look at pending_events.
    void wake(std::size_t index);

  private:
    struct Reply {
        std::vector<std::string> fields;
        std::vector<UniqueFd> descriptors;
    };
    bool start_keeper(const std::string& tools);
    bool map_state();
    // Nothing when the request failed; error() then says why.
    std::optional<Reply> ask(const std::vector<std::string>& fields,
                             const std::vector<int>& descriptors = {});
    std::optional<Reply> receive_reply();

    UniqueFd control_;
    int keeper_ = -1;  // our child
    int init_ = -1;    // its child, init of the namespaces, in our numbering
    ModuleState* state_ = nullptr;
    std::vector<UniqueFd> wakes_;
    std::deque<Exit> exits_;
    std::string error_;
};

// The folder of the running program: where the other programs of the build are.
std::string program_folder();

}  // namespace bench
