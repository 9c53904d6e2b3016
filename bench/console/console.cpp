#include "console.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <sstream>

namespace bench {
namespace {

constexpr std::string_view kEscape = "+++";
constexpr auto kEscapeGuard = std::chrono::seconds(1);
constexpr std::string_view kPrompt = "AT> ";
constexpr std::string_view kTextPrompt = "text> ";
constexpr std::string_view kDataPrompt = "data> ";
// What the daemon says when a platform command finds no platform: an answer, but no result.
constexpr std::string_view kNoPlatform = "app-plat is not running";

constexpr auto kStatusPeriod = std::chrono::milliseconds(200);

// Fits a terminal of 80 columns and 24 rows.
constexpr const char* kHelp =
    "a line is an AT command; after a message prompt, the message; after CONNECT,\n"
    "data (+++ ends). PORT is modem, at, uart or, with --pcie, pcie\n"
    "  /ports                   where each port can be reached, and its mode\n"
    "  /unplug PORT             take a host port away; /plug PORT gives it back\n"
    "  /platform stop           the app platform goes; /platform start: it comes\n"
    "  /signal NAME [on|off] [PLACE]\n"
    "                           a modem-control line (dtr rts cts dsr cd ri) of a\n"
    "                           PORT or cp-modem, cp-at, cp-uart; of the modem port\n"
    "                           without a PLACE, turned over without on or off\n"
    "  /mhi connect [32|33]     the host opens the PCIe channels (with --pcie);\n"
    "                           also disconnect, configure\n"
    "  /scenario FILE           the modem answers by this file from now on\n"
    "  /stats                   what passed so far, and what the daemon takes\n"
    "  /esc                     give a message up\n"
    "  /raw TEXT                bytes as they stand: \\r \\n \\t \\e \\xHH\n"
    "  mux send 4 ATD*99#\\r     bytes on a channel (with --port mux)\n"
    "  mux expect 4 CONNECT     wait for them\n"
    "  /log                     the end of what the daemon wrote\n"
    "  /quit, Ctrl-D            end; everything started ends too";

std::vector<std::string> words_of(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

}  // namespace

Console::Console(BenchModule& module, std::unique_ptr<Road> road, bool interactive)
    : module_(module), road_(std::move(road)), interactive_(interactive) {}

bool Console::open(const std::function<void()>& opened) {
    road_->on_output([this](std::string_view bytes) { heard(bytes); });
    road_->on_aside([this](const std::string& line) { print(line); });
    if (!road_->open(opened)) {
        error_ = road_->error();
        return false;
    }
    return true;
}

void Console::run() {
    for (const std::string& line : module_.summary()) {
        fprintf(stderr, "%s\n", line.c_str());
    }
    fprintf(stderr, "AT commands go to %s%s\n", road_->title().c_str(),
            interactive_ ? "; /help tells more, Ctrl-D ends" : "");
    const auto took = [this](const std::string& line) { took_line(line); };
    const auto ended = [this] { input_ended(); };
    input_ = interactive_ ? make_terminal_input(module_.loop(), took, ended)
                          : make_stream_input(module_.loop(), took, ended);
    if (interactive_) {
        keep_status();
    }
    input_->run();
}

void Console::took_line(const std::string& line) {
    if (interactive_) {
        carry_out(line);
        return;
    }
    lines_.push_back(line);
    next_line();
}

void Console::input_ended() {
    ended_ = true;
    if (interactive_) {
        end();
        return;
    }
    next_line();
}

void Console::next_line() {
    while (results_left_ == 0 || wants_text_) {
        if (lines_.empty()) {
            if (ended_ && wants_text_) {
                send_text("\x1b");
            }
            // Nobody waits for the result of a message that another client of the port began.
            if (ended_ && results_left_ == 0) {
                end();
            }
            return;
        }
        const std::string line = lines_.front();
        lines_.pop_front();
        carry_out(line);
    }
}

void Console::carry_out(const std::string& line) {
    if (line.starts_with("/")) {
        own_command(line);
    } else if (line.starts_with("mux ")) {
        road_line(line);
    } else if (wants_text_) {
        send_text(line + "\x1a");
    } else if (reader_.in_data()) {
        send_data(line);
    } else if (!line.empty()) {
        send_command(line);
    }
}

void Console::send_command(const std::string& line) {
    ++commands_;
    reader_.begin(line);
    results_left_ = results_expected(line);
    wait_for(line, "no final result of ");
    road_->send(line + "\r");
}

// A line in the road's own language; what it waits for, the road knows.
void Console::road_line(const std::string& line) {
    results_left_ = 1;
    road_decides_ = true;
    wait_for(line, "waited in vain for ");
    if (!road_->carry_out(line, [this] { command_done(true); })) {
        print("no such command here: " + line);
        command_done(false);
    }
}

void Console::send_text(const std::string& text) {
    wants_text_ = false;
    if (interactive_) {
        input_->set_prompt(std::string(kPrompt));
    }
    road_->send(text);
}

// "+++" ends a data connection: without a line end, and alone, so what was sent before it gets time
// to be read first. When it was read together with that all the same, it is data; so once more.
void Console::send_data(const std::string& line) {
    if (line != kEscape) {
        road_->send(line + "\r\n");
        return;
    }
    results_left_ = 1;
    wait_for(line, "no final result of ");
    send_escape_later();
}

void Console::send_escape_later() {
    module_.loop().after(kEscapeGuard, [this] {
        if (results_left_ > 0 && current_ == kEscape) {
            road_->send(kEscape);
            send_escape_later();
        }
    });
}

void Console::wait_for(const std::string& command, const char* complaint) {
    current_ = command;
    if (interactive_) {
        return;
    }
    const auto time = Milliseconds{static_cast<int>(module_.options().time_out * 1000)};
    timer_ = module_.loop().after(time, [this, complaint] {
        fprintf(stderr, "%s%s\n", complaint, current_.c_str());
        command_done(false);
    });
}

void Console::own_command(const std::string& line) {
    const auto blank = line.find(' ');
    const std::string name = line.substr(0, blank);
    const std::string rest = blank == std::string::npos ? "" : line.substr(blank + 1);
    if (name == "/help") {
        print(kHelp);
    } else if (name == "/ports") {
        show(module_.summary());
        print("  " + module_.status_line());
    } else if (name == "/plug" || name == "/unplug") {
        plug_command(rest, name == "/plug");
    } else if (name == "/platform") {
        platform_command(rest);
    } else if (name == "/signal") {
        signal_command(rest);
    } else if (name == "/scenario") {
        scenario_command(rest);
    } else if (name == "/stats") {
        show(module_.stats());
        print("  commands: " + std::to_string(commands_) + " sent here, " +
              std::to_string(results_) + " final results");
    } else if (name == "/esc") {
        send_text("\x1b");
    } else if (name == "/raw") {
        road_->send(decode_escapes(rest));
    } else if (name == "/mhi") {
        mhi_command(rest);
    } else if (name == "/log") {
        print(module_.log_tail());
    } else if (name == "/quit") {
        end();
    } else {
        print("no such command: " + name + "; /help lists them");
        all_answered_ = false;
    }
}

void Console::report(const std::string& name, bool is_done) {
    if (!is_done) {
        print(name + ": " + module_.error());
        all_answered_ = false;
    }
}

void Console::show(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        print(line);
    }
}

void Console::plug_command(const std::string& arguments, bool is_plugged) {
    const auto words = words_of(arguments);
    const std::string port = words.size() == 1 ? words[0] : "";
    report(is_plugged ? "/plug" : "/unplug",
           is_plugged ? module_.plug(port) : module_.unplug(port));
}

void Console::platform_command(const std::string& arguments) {
    const auto words = words_of(arguments);
    if (words == std::vector<std::string>{"stop"}) {
        report("/platform", module_.stop_platform());
    } else if (words == std::vector<std::string>{"start"}) {
        report("/platform", module_.start_platform());
    } else {
        print("/platform stop, or /platform start");
        all_answered_ = false;
    }
}

// NAME [on|off] [PLACE]: the other lines of the place stay as they are.
void Console::signal_command(const std::string& arguments) {
    auto words = words_of(arguments);
    if (words.empty()) {
        print("/signal NAME [on|off] [PLACE]; NAME is dtr, rts, cts, dsr, cd or ri");
        all_answered_ = false;
        return;
    }
    const bool has_state = words.size() > 1 && (words[1] == "on" || words[1] == "off");
    const std::size_t place_at = has_state ? 2 : 1;
    const std::string place = words.size() > place_at ? words[place_at] : "modem";
    std::string name = words[0];
    std::transform(name.begin(), name.end(), name.begin(), ::toupper);
    auto lines = words_of(module_.lines_of(place));
    const bool was_on = std::erase(lines, name) != 0;
    if (has_state ? words[1] == "on" : !was_on) {
        lines.push_back(name);
    }
    std::string names;
    for (const std::string& line : lines) {
        names += (names.empty() ? "" : " ") + line;
    }
    const bool is_done = module_.set_lines(place, names);
    report("/signal", is_done);
    if (is_done) {
        print(place + " lines: " + (names.empty() ? "none" : names));
    }
}

void Console::scenario_command(const std::string& path) {
    if (path.empty()) {
        print("/scenario FILE");
        all_answered_ = false;
        return;
    }
    report("/scenario", module_.use_scenario(path));
}

void Console::keep_status() {
    input_->set_status(module_.status_line());
    module_.loop().after(kStatusPeriod, [this] { keep_status(); });
}

void Console::mhi_command(const std::string& arguments) {
    const auto words = words_of(arguments);
    const std::string change = words.empty() ? "" : words[0];
    constexpr int kNone = -1;
    const int number = words.size() < 2 ? 0 : atoi(words[1].c_str());
    const int channel = words.size() < 2 || number != 0 ? number : kNone;
    report("/mhi", module_.change_mhi(change, channel));
}

void Console::heard(std::string_view bytes) {
    for (const AnswerReader::Item& item : reader_.feed(bytes)) {
        if (item.kind == AnswerReader::Kind::prompt) {
            got_prompt();
            continue;
        }
        print(item.text);
        if (item.kind == AnswerReader::Kind::final_result) {
            got_final();
        } else if (results_left_ > 0 && item.text.starts_with(kNoPlatform)) {
            command_done(false);
        }
    }
}

void Console::got_prompt() {
    wants_text_ = true;
    if (input_ == nullptr) {
        return;
    }
    if (interactive_) {
        input_->set_prompt(std::string(kTextPrompt));
    } else {
        next_line();
    }
}

void Console::got_final() {
    ++results_;
    if (interactive_ && input_ != nullptr) {
        input_->set_prompt(std::string(reader_.in_data() ? kDataPrompt : kPrompt));
    }
    if (results_left_ > 0 && !road_decides_ && --results_left_ == 0) {
        command_done(true);
    }
}

void Console::command_done(bool answered) {
    module_.loop().cancel(timer_);
    results_left_ = 0;
    road_decides_ = false;
    wants_text_ = false;
    all_answered_ = all_answered_ && answered;
    if (!interactive_) {
        next_line();
    }
}

void Console::print(const std::string& text) {
    input_->print(text);
}

void Console::end() {
    module_.loop().stop();
}

}  // namespace bench
