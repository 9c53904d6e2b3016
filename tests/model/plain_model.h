// What the daemon's surroundings must see, said a second time and as plainly as it goes: one step
// at a time, strings and a few numbers, no threads, no clock, nothing of the daemon's code. Slow on
// purpose; a rule of the daemon stands here as a person would tell it.
//
// A step whose outcome depends on timing (a chunk for a port whose command is not yet answered) is
// not taken: take() returns nothing and the model stays as it was.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "conversation.h"

namespace model {

// Rules that can be broken on purpose, to see that the comparison finds it.
enum class Broken {
    none,
    echo_on_uart,           // a typed character comes back on the UART, too
    repeat_of_any_port,     // "A/" repeats the last line of whatever port
    ctrl_z_is_kept,         // the byte that ends a message does not reach the modem
    splits_every_length,    // a combined line of more than ten characters is split, too
    typing_keeps_client,    // what is typed on the AT port leaves the answers with the client
    blanks_in_quotes_drop,  // blanks vanish inside quotes, too
    prompt_of_any_length,   // any text with ">" begins a message
    echo_after_typing,      // a typed platform command stands before its answer, too
};
std::optional<Broken> broken_rule(std::string_view name);
std::string_view name_of(Broken rule);
std::string broken_rule_names();

// What came at each boundary.
struct Seen {
    std::array<std::string, kHostDevices> hosts;
    std::array<std::vector<std::string>, kPorts> channels;   // one entry a message
    std::array<std::string, kPorts> platform;                // packs as they stand
    std::array<std::vector<std::string>, kClients> clients;  // one entry a datagram
    bool operator==(const Seen&) const = default;
};

// How much the daemon has dealt with since its start, waits included.
struct Progress {
    std::array<int, kHostDevices> chunks{};
    std::array<int, kPorts> messages{};
    int answers = 0;  // of the platform
    int datagrams = 0;
    bool operator==(const Progress&) const = default;
};

class PlainModel {
  public:
    explicit PlainModel(const World& world = {}, Broken broken = Broken::none);

    // What is seen before the first step.
    [[nodiscard]] Seen at_start() const;
    std::optional<Seen> take(const Step& step);
    bool operator==(const PlainModel&) const = default;

    [[nodiscard]] const Progress& progress() const { return progress_; }
    [[nodiscard]] bool is_waiting(int port) const { return ports_[at(port)].asker >= 0; }
    // A platform's answer would be held up until the modem has given its result, or for 5 s.
    [[nodiscard]] bool awaits_result(int port) const { return ports_[at(port)].awaits_result; }
    // 0 commands, 2 message text, 3 data call, 4 platform data, 5 multiplexer.
    [[nodiscard]] int mode(int port) const { return ports_[at(port)].mode; }
    // How often so far something was held up for 5 s: a platform's answer by the modem's missing
    // result, or a command by the missing platform.
    [[nodiscard]] int times_held() const { return times_held_; }

  private:
    // Where bytes come from: the four host devices, and the UDP server.
    static constexpr int kUdp = 4;
    static constexpr int kSources = 5;

    struct Port {
        int mode = 0;
        std::string last;  // the last line sent
        std::string kept;  // stands before the platform's answers while echo is on
        bool awaits_result = false;
        int asker = -1;                 // the source whose command is on its way
        std::vector<std::string> rest;  // the commands of its line that are still to be sent
        bool operator==(const Port&) const = default;
    };

    static constexpr std::size_t at(int index) { return static_cast<std::size_t>(index); }
    static int port_of(int source) { return source < kPorts ? source : kAt; }

    void play(const Step& step);
    void hear_host(int device, const std::string& bytes);
    void hear_client(int client, const std::string& bytes);
    void hear_cp(int port, const std::string& bytes);
    void hear_platform(int port, const std::vector<Pack>& packs);

    void hear(int source, const std::string& chunk);
    void done(int source);
    void gather(int source, const std::string& chunk);
    void echo_key(int source, const std::string& key);
    void say(int port, const std::string& text);
    void take_line(int source);
    bool take_cmux_command(int source);
    void raw_to_cp(int port, const std::string& chunk);
    [[nodiscard]] bool is_finished(const std::string& line) const;
    [[nodiscard]] std::string without_blanks(const std::string& line) const;
    [[nodiscard]] std::vector<std::string> commands_in(const std::string& line) const;

    [[nodiscard]] std::string name_of(const std::string& line);
    bool is_one_of(const std::string& line, const std::vector<std::string>& names);
    bool digit_belongs(const std::string& line);
    bool takes_register(const std::string& line);
    void note_settings(const std::string& line);

    void run(int source, std::vector<std::string> commands);
    void send(int port, int source, const std::string& line);
    void send_without_platform(int port, int source, const std::string& line);
    void send_to_cp(int port, const std::string& line);
    void pack(int port, unsigned kind, const std::string& payload);
    void wait(int port, int source);
    void release(int port);
    void follow_modes(int port, const std::string& text, std::size_t size);

    void to_at_port(const std::string& text);
    void to_host(int port, const std::string& text);
    void in_frames(unsigned char address, const std::string& text);
    void hear_frame(const std::string& frame);
    void refuse_frame();
    void hear_payload(unsigned char address, const std::string& payload);

    World world_;
    Broken broken_;
    std::array<Port, kPorts> ports_;
    std::array<std::string, kSources> lines_;
    bool echoes_ = true;
    bool typed_ = false;  // a single key was echoed and the modem has not spoken since
    unsigned s3_ = 13;
    unsigned s4_ = 10;
    bool diverted_ = false;  // the AT port's answers go to the client
    int client_ = -1;
    bool multiplexes_ = false;
    int next_channel_ = 0;  // the set-up that comes next; from 3 on data is taken
    unsigned char command_address_ = 0;
    unsigned char dial_address_ = 0;
    std::string parameters_ = "0,0,0,0,0,0,0,0";
    bool junk_before_ = false;
    int times_held_ = 0;
    Progress progress_;
    Seen seen_;
    bool is_open_ = false;  // this step's outcome depends on timing
};

}  // namespace model
