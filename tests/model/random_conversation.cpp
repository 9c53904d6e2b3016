#include "random_conversation.h"

#include <array>
#include <deque>

#include "dice.h"
#include "plain_model.h"
#include "plain_words.h"

namespace model {
namespace {

// A step that the daemon holds up for 5 s is taken once in so many times.
constexpr std::size_t kHold = 2000;

// What a conversation is mostly about, in weights.
struct Theme {
    int typed;     // lines key by key
    int settings;  // S-registers, echo, verbosity
    int modes;     // messages, calls, platform data
    int clients;   // UDP
    int junk;
    int mux;
};

constexpr std::array<Theme, 7> kThemes{{
    {5, 5, 5, 5, 2, 0},    // a little of everything
    {60, 15, 5, 0, 2, 0},  // a person at a keyboard
    {5, 60, 5, 5, 2, 0},   // settings
    {5, 2, 60, 5, 5, 0},   // modes
    {10, 5, 5, 60, 5, 0},  // UDP clients
    {10, 10, 10, 10, 60, 0},
    {5, 5, 10, 10, 2, 60},  // the multiplexer
}};

const std::vector<std::string> kPlatformLines{"AT+CGMR",
                                              "AT+CSQ",
                                              "at+csq",
                                              "AT+CSQ?",
                                              "At+Creg?",
                                              "AT+CREG=2",
                                              "AT+CGSN",
                                              "AT+WS46=12",
                                              "AT+GTUSIM=\"a b\",1",
                                              "AT+GTUD=1",
                                              "AT+BODYSARON",
                                              "AT+BODYSAR",
                                              "ATI9",
                                              "AT+CGDCONT=1,\"IP\"",
                                              "AT+CB",
                                              "AT+CBWRITE=1",
                                              "AT+GTQXDMLOG=0",
                                              "AT+GTQXDMLOG=?",
                                              "AT+MAI2SY=1",
                                              "AT+CCID*",
                                              "AT+CLVL=5",
                                              "AT+GTMODEL?",
                                              "AT+TPIN?"};
const std::vector<std::string> kEnds{"", "", "?", "=?", "=1", "=\"a\",2", "1", ";", "X", "*"};
const std::vector<std::string> kModemLines{"AT",
                                           "at",
                                           "AT+CFUN?",
                                           "AT+CFUN=1",
                                           "AT+COPS=?",
                                           "ATI",
                                           "ATI1",
                                           "ATZ",
                                           "AT&F",
                                           "ATH",
                                           "AT+CSQ;+COPS?",
                                           "at+creg?;+csq",
                                           "AT+CSQX",
                                           "AT+CMGR=1",
                                           "ATX4",
                                           "ATDT5551234;",
                                           "AT+FOO=\"x y  z\",\"",
                                           "AT+CMUX;",
                                           "AT+CGM",
                                           "AT+CSQQ=1",
                                           "ATA",
                                           "AT$QC=1",
                                           "AT+CV1=2",
                                           "ATIATE",
                                           "ATDATE1",
                                           "ATDATE123",
                                           "A",
                                           "AT+COPS=\"1"};
const std::vector<std::string> kSettingLines{
    "ATE0",      "ATE1",         "ate0",     "ate1",     "ATE",      "ATE2",
    "ATV0",      "ATV1",         "ATQ0",     "ATE0V1",   "ATV1E1",   "ate0v1",
    "ATE1Q0V1",  "ATE0V1Q0X1",   "ATQ0V1E1", "ATS0=1",   "ATS3=13",  "ATS3?",
    "ats4=10",   "ATS4=65",      "ATS5=8",   "ATS24=5",  "ATS3=200", "ATS3=1234",
    "AT+CMEE=2", "AT+CMEE=1;E0", "AT+CMEE1", "ATE0;V1",  "ATe0E1",   "ATS0=E1",
    "ATS30=13",  "AT V1 E1",     "AT E 0",   "ATS5=127", "ATS=13",   "ATSS3=13"};
const std::vector<std::string> kRareSettingLines{"ATS3=10", "ATS3=59", "ATS3=0",
                                                 "ATS3=",   "ATS3=36", "ATS35=33",
                                                 "ATS3=65", "ATS4=84", "ATS4=43"};
const std::vector<std::string> kModeLines{
    "ATD*99#",         "ATDT123",          "atd1",     "ATD1;",      "AT+CMGS=12",
    "AT+CMGW=\"a b\"", "AT+CMGS=\"+1 2\"", "AT D 1 2", "ATD*99***1#"};
const std::vector<std::string> kIllegalLines{"",         "hello", "X",  "TA", "\nAT",
                                             "\rAT+CSQ", "+++",   "A1", "/A"};
const std::vector<std::string> kRepeats{"A/",     "a/",     "A/\r",  "a/\r",
                                        "A/\r\n", "a/\r\n", "A /\r", "A/ \r"};
const std::vector<std::string> kModemTexts{"\r\nOK\r\n",
                                           "\r\nERROR\r\n",
                                           "\r\n+CFUN: 1\r\n\r\nOK\r\n",
                                           "\r\n> ",
                                           "\r\nCONNECT 150000000\r\n",
                                           "CONNECT",
                                           "\r\nNO CARRIER\r\n",
                                           "\r\n+CMGS: 3\r\n\r\nOK\r\n",
                                           "\r\n+CMS ERROR: 500\r\n",
                                           "\r\nRING\r\n",
                                           "abc>",
                                           ">",
                                           "\r\n>  ",
                                           "\r\n+CME ERROR: 100\r\n",
                                           "O",
                                           "K\r\n",
                                           "ok\r\n",
                                           "no carrier",
                                           "\r\nCONNECT\r\nNO CARRIER\r\n",
                                           "\r\n+CREG: 1\r\n",
                                           "+CMGS: 1",
                                           "OK"};
const std::vector<std::string> kPlatformTexts{"\r\nOK\r\n",
                                              "\r\nERROR\r\n",
                                              "\r\n+CSQ: 20,99\r\n\r\nOK\r\n",
                                              "\r\n+GTIND: 1\r\n",
                                              "x",
                                              "\r\n> ",
                                              "CONNECT",
                                              "\r\nNO CARRIER\r\n",
                                              "++++++"};

class Writer {
  public:
    Writer(std::uint64_t seed, std::size_t steps)
        : dice_(seed), wanted_(steps), theme_(dice_.of(kThemes)), model_(some_world()) {}
    Conversation write();

  private:
    World some_world();
    void begin_session();
    Step next_step();
    Step anything();
    Step host_step(int device);
    Step client_step();
    Step cp_step(int port);
    Step platform_step(int port);
    Step answer_step(int port);
    std::string chunk_for(std::size_t source, int port);
    std::string command_text();
    std::string disturbed(std::string line);
    std::string raw_chunk(int port);
    std::string frame_chunk();
    void cut(std::deque<std::string>& pieces, const std::string& text);

    Dice dice_;
    std::size_t wanted_;
    Theme theme_;
    World world_;
    PlainModel model_;
    std::array<std::deque<std::string>, kHostDevices + 1> pieces_;  // still to be typed
    Conversation conversation_;
};

World Writer::some_world() {
    world_ = {.pcie = dice_.one_in(5), .platform = !dice_.one_in(8)};
    return world_;
}

Conversation Writer::write() {
    conversation_.world = world_;
    if (theme_.mux > 0) {
        begin_session();
    }
    for (int tries = 0; conversation_.steps.size() < wanted_ && tries < 100000; ++tries) {
        Step step = next_step();
        PlainModel after = model_;
        if (!after.take(step) ||
            (after.times_held() > model_.times_held() && !dice_.one_in(kHold))) {
            continue;
        }
        model_ = after;
        step.together = !conversation_.steps.empty() && dice_.one_in(4);
        conversation_.steps.push_back(step);
    }
    return conversation_;
}

// The set-up of the multiplexer comes early, its frames now and then out of order.
void Writer::begin_session() {
    pieces_[kUart] = {"AT+CMUX=?\r",
                      "AT+CMUX?\r",
                      dice_.one_in(2) ? "AT+CMUX=0\r" : "at+cmux=1,0\r",
                      "\xF9\x03\x3F\x01\x1C\xF9",
                      "\xF9\x07\x3F\x01\xDE\xF9",
                      "\xF9\x0B\x2F\x01\x59\xF9",
                      "\xF9\x13\x3F\x01\x96\xF9"};
    if (dice_.one_in(3)) {
        std::swap(pieces_[kUart][3 + dice_.below(4)], pieces_[kUart][3 + dice_.below(4)]);
    }
}

Step Writer::next_step() {
    for (int port = 0; port < kPorts; ++port) {
        if (model_.is_waiting(port) && dice_.one_in(2)) {
            return answer_step(port);
        }
    }
    return anything();
}

Step Writer::anything() {
    const int kinds = 10 + theme_.clients / 6;
    const int kind = static_cast<int>(dice_.below(static_cast<std::size_t>(kinds)));
    if (kind == 0) {
        return cp_step(static_cast<int>(dice_.below(kPorts)));
    }
    if (kind == 1) {
        return platform_step(static_cast<int>(dice_.below(kPorts)));
    }
    if (kind >= 10 || (kind == 2 && theme_.clients > 0 && dice_.one_in(4))) {
        return client_step();
    }
    return host_step(static_cast<int>(dice_.below(world_.pcie ? kHostDevices : kPorts)));
}

Step Writer::host_step(int device) {
    Step step{.who = Who::host, .place = device, .bytes = {}, .packs = {}};
    step.bytes = chunk_for(static_cast<std::size_t>(device), device == kPipe ? kAt : device);
    return step;
}

Step Writer::client_step() {
    const int client = dice_.one_in(2) ? 0 : static_cast<int>(dice_.below(kClients));
    Step step{.who = Who::client, .place = client, .bytes = {}, .packs = {}};
    if (!dice_.one_in(20)) {
        step.bytes = chunk_for(kHostDevices, kAt);
    }
    return step;
}

Step Writer::cp_step(int port) {
    Step step{.who = Who::cp, .place = port, .bytes = dice_.of(kModemTexts), .packs = {}};
    if (dice_.one_in(15)) {
        step.bytes = dice_.bytes(1 + dice_.below(40));
    } else if (dice_.one_in(15)) {
        step.bytes = "\r\n" + dice_.letters(100 + dice_.below(4000)) + "\r\n\r\nOK\r\n";
    }
    return step;
}

Step Writer::platform_step(int port) {
    Step step{.who = Who::platform, .place = port, .bytes = {}, .packs = {}};
    const std::size_t packs = dice_.one_in(6) ? 2 + dice_.below(3) : 1;
    for (std::size_t at = 0; at < packs; ++at) {
        const unsigned kind = theme_.modes > 20 && dice_.one_in(4) ? 2 : dice_.one_in(8) ? 2 : 1;
        step.packs.push_back({dice_.one_in(10) ? static_cast<unsigned>(dice_.below(4)) : kind,
                              dice_.of(kPlatformTexts)});
        if (dice_.one_in(20)) {
            step.packs.back().payload = dice_.bytes(1 + dice_.below(60));
        } else if (dice_.one_in(20)) {
            step.packs.back().payload = dice_.letters(100 + dice_.below(2000));
        } else if (dice_.one_in(300)) {
            step.packs.back().payload = std::string(254 + dice_.below(3), '+');
        }
    }
    return step;
}

Step Writer::answer_step(int port) {
    return !world_.platform || model_.awaits_result(port) || dice_.one_in(3) ? cp_step(port)
                                                                             : platform_step(port);
}

// The next piece of what a source is about, or of something new.
std::string Writer::chunk_for(std::size_t source, int port) {
    std::deque<std::string>& pieces = pieces_[source];
    if (pieces.empty()) {
        if (model_.mode(port) == 0) {
            cut(pieces, disturbed(command_text()));
        } else {
            pieces.push_back(model_.mode(port) == 5 ? frame_chunk() : raw_chunk(port));
        }
    }
    const std::string piece = pieces.front();
    pieces.pop_front();
    return piece;
}

std::string Writer::command_text() {
    const int all = 40 + theme_.settings + theme_.modes + theme_.junk;
    int kind = static_cast<int>(dice_.below(static_cast<std::size_t>(all)));
    if (kind < 6) {
        return dice_.of(dice_.one_in(8) ? kWorthWaiting : kPlatformCommands) + dice_.of(kEnds);
    }
    if (kind < 16) {
        return dice_.of(kPlatformLines);
    }
    if (kind < 32) {
        return dice_.of(kModemLines);
    }
    if (kind < 40) {
        return dice_.of(kRepeats);
    }
    kind -= 40;
    if (kind < theme_.settings) {
        return dice_.of(dice_.one_in(25) ? kRareSettingLines : kSettingLines);
    }
    if (kind < theme_.settings + theme_.modes) {
        return dice_.of(kModeLines);
    }
    return dice_.one_in(3) ? dice_.bytes(1 + dice_.below(30)) : dice_.of(kIllegalLines);
}

// An end of line, and what people and programs do to a line.
std::string Writer::disturbed(std::string line) {
    if (dice_.one_in(8) && !line.empty()) {
        line.insert(dice_.below(line.size() + 1), dice_.one_in(3) ? "  " : " ");
    }
    if (dice_.one_in(8)) {
        for (char& letter : line) {
            letter = dice_.one_in(2) && letter >= 'a' && letter <= 'z'
                         ? static_cast<char>(letter - 32)
                         : letter;
        }
    }
    if (dice_.one_in(12) && !line.empty()) {
        line[dice_.below(line.size())] = dice_.bytes(1)[0];
    }
    if (line.ends_with("/") && dice_.one_in(2)) {
        return line;
    }
    const std::size_t end = dice_.below(40);
    return line + (end < 30   ? "\r"
                   : end < 36 ? "\r\n"
                   : end < 38 ? "\x1A"
                   : end < 39 ? "\n"
                              : "\r\r");
}

void Writer::cut(std::deque<std::string>& pieces, const std::string& text) {
    const bool by_key = dice_.below(100) < static_cast<std::size_t>(theme_.typed);
    const bool in_parts = !by_key && dice_.one_in(4);
    for (std::size_t from = 0; from < text.size();) {
        if (by_key && dice_.one_in(10)) {
            pieces.push_back(std::string(1, dice_.letters(1)[0]));
            pieces.push_back("\b");
        }
        if (by_key && dice_.one_in(60)) {
            pieces.push_back("\b");
        }
        const std::size_t most = text.size() - from;
        const std::size_t size = by_key ? 1 : in_parts ? 1 + dice_.below(most) : most;
        pieces.push_back(text.substr(from, size));
        from += size;
    }
}

std::string Writer::raw_chunk(int port) {
    static const std::vector<std::string> kSmall{
        "\x1A",     "\x1B",  "+++",  "ATH\r", "ath\r\n",    "+++\r",  "ATH",
        "text\x1A", "x\x1B", "AT\r", "\b",    "AT+CSQ\r\n", "ATH\rAT"};
    const bool ends = model_.mode(port) != 4 && dice_.one_in(3);
    return ends || dice_.one_in(2) ? dice_.of(kSmall) : dice_.bytes(1 + dice_.below(120));
}

std::string Writer::frame_chunk() {
    if (dice_.one_in(25)) {
        return "junk";
    }
    static const std::string kAddresses{"\x03\x05\x07\x09\x0B\x0B\x0B\x0B\x13\x13\x13\x0F"};
    const bool is_information = !dice_.one_in(12);
    const std::string dial = dice_.one_in(3) ? "ATD*99#\r" : "atdt12;\r";
    std::string text = dice_.one_in(4) ? dial : disturbed(command_text()).substr(0, 127);
    if (dice_.one_in(10)) {
        text = dice_.letters(dice_.below(128));
    }
    text = is_information ? text : "";
    const char control = is_information ? '\xEF' : dice_.of(std::string("\x2F\x3F\x43\x53\xFF"));
    // The check sequence of what comes in is looked at by nobody.
    return "\xF9" + std::string(1, dice_.of(kAddresses)) + control +
           static_cast<char>(text.size() * 2 + 1) + text + dice_.bytes(1) + "\xF9";
}

}  // namespace

Conversation random_conversation(std::uint64_t seed, std::size_t steps) {
    return Writer(seed, steps).write();
}

}  // namespace model
