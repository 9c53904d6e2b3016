// The multiplexer's road: bytes of the host, cut anywhere, to lines; answers to frames and back.
// Input: pieces of a letter and what belongs to it:
//
//   c TEXT          a +CMUX command, as the UART's line
//   r TEXT          bytes as they come, in one read
//   s               the four set-ups
//   d ADDRESS CUTS TEXT  a payload as a UIH frame, cut into reads of 1 to 8 bytes
//   p TENTHS        nothing comes for so long
//   a DLC TEXT      an answer of the module
//   g CUTS TEXTS    frames of the payloads (divided by a NUL) through the gatherer: cut, glued,
//   with
//                   a flag for two, with junk between them
//   w TEXT          byte stuffing of the advanced option
//   n               the hang-up of the UART
#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "descriptors.h"
#include "frame_gatherer.h"
#include "fuzz_input.h"
#include "input_source.h"
#include "line_settings.h"
#include "mux_input.h"
#include "mux_output.h"
#include "mux_session.h"
#include "plain_rules.h"
#include "port_state.h"
#include "shared_int.h"
#include "udp_server.h"
#include "world.h"

namespace {

constexpr std::size_t kMostBytes = 20'000;
constexpr uint8_t kUih = 0xEF;

class Multiplexer {
  public:
    explicit Multiplexer(FuzzInput& input) : input_(input) {
        bind_input_source(InputSource::uart_port);
        usb_uartport_fd = host_ = world::open_descriptor();
        mdm_fd = modem_ = world::open_descriptor();
        mdm_uartport_fd = uart_ = world::open_descriptor();
        store_shared(g_fd_usb_uartport_device, &usb_uartport_fd);
        for (const PortRecord& port : g_ports) {
            platform_[port.index] = world::open_descriptor();
            store_shared(port.platform_socket, platform_[port.index]);
            store_shared(port.mode, USB_PORT_ATCMD_MODE);
            store_shared(port.send_done, 0);
        }
        store_shared(g_modem_tinfo_for_mux, &modem_record_);
        store_shared(g_uart_tinfo_for_mux, &uart_record_);
        store_shared(g_at_over_sokcet_enable, 0);
        store_shared(g_uart_port_status, 0);
        store_shared(g_mux_atcmd_dlc, uint8_t{0});
        store_shared(g_mux_ppp_dlc, uint8_t{0});
        g_cur_mux_proc_state = CUR_STATE_ERROR;
        g_MuxCfg = {};
        reset_mux_input();
        // The process's first chunk may begin with the end of the +CMUX line; the gatherer's clock
        // begins now.
        static const bool has_dropped_line_end = handle_mux_input("\n", 1) == 1;
        HOLDS(has_dropped_line_end);
        handle_mux_input("", 0);
        forget_written();
    }
    ~Multiplexer() { store_shared(g_uart_port_status, 0); }
    Multiplexer(const Multiplexer&) = delete;
    Multiplexer& operator=(const Multiplexer&) = delete;

    void play() {
        while (!input_.empty() && bytes_ < kMostBytes) {
            step(static_cast<char>(input_.byte()));
            ++bytes_;
        }
    }

  private:
    void step(char letter);
    void command(const std::string& line);
    void set_up();
    void data(uint8_t address, uint8_t cut, std::string payload);
    void answer(uint8_t dlc, const std::string& text);
    void read(const std::string& bytes) {
        bytes_ += bytes.size();
        handle_mux_input(bytes.data(), static_cast<int>(bytes.size()));
    }
    void forget_written() {
        for (int fd = host_; fd <= platform_[kUartPort]; ++fd) world::at(fd).written.clear();
    }

    FuzzInput& input_;
    std::size_t bytes_ = 0;
    int host_ = -1;
    int modem_ = -1;
    int uart_ = -1;
    std::array<int, kPortCount> platform_{};
    pthread_mutex_t from_mutex_ = PTHREAD_MUTEX_INITIALIZER;
    thread_info_t modem_record_ = {"/dev/at_usb0", "/dev/at_mdm0", &usb_fd, &mdm_fd, &from_mutex_,
                                   &mdm_mutex,     nullptr,        nullptr, 0};
    thread_info_t uart_record_ = {"/dev/ttyMSM1",   "/dev/smd8",  &usb_uartport_fd,
                                  &mdm_uartport_fd, &from_mutex_, &mdm_uartport_mutex,
                                  nullptr,          nullptr,      0};
};

void Multiplexer::command(const std::string& line) {
    std::array<char, kMuxAnswerArea> response{};
    int length = 0;
    int direction = -1;
    const bool was_active = load_shared(g_uart_port_status) != 0;
    const int result = proc_host_to_ue_cmux_atcmd(line.data(), static_cast<int>(line.size()),
                                                  response.data(), &length, &direction);
    HOLDS(result == 0 || result == -1);
    HOLDS(length >= 0 && length < kMuxAnswerArea);
    if (was_active || result != 0)
        return;
    const std::string text = plain::until_nul(line);
    const auto has = [&text](const char* part) { return text.find(part) != std::string::npos; };
    HOLDS(direction == 0);
    HOLDS(static_cast<std::size_t>(length) == strlen(response.data()));
    const bool is_asked = has("=?") || has("x?") || has("X?");
    HOLDS((load_shared(g_uart_port_status) == 1) == !is_asked);
    HOLDS(is_asked || has("=0") || has("=1"));
}

void Multiplexer::set_up() {
    store_shared(g_uart_port_status, 1);
    g_cur_mux_proc_state = CUR_STATE_MUX_IDLE;
    reset_mux_input();
    forget_written();
    for (const int address : {0x03, 0x07, 0x0B, 0x13})
        read(plain::frame(static_cast<uint8_t>(address), 0x3F, ""));
    // Acknowledged one by one; the fourth channel's control byte is the module's own.
    const std::string wanted = plain::frame(0x03, 0x73, "") + plain::frame(0x07, 0x73, "") +
                               plain::frame(0x0B, 0x73, "") +
                               std::string("\xF9\x13\x3F\x01\x5D\xF9");
    HOLDS(world::at(host_).all_written() == wanted);
}

// A whole frame in an established session arrives as its payload, whatever the cuts.
void Multiplexer::data(uint8_t address, uint8_t cut, std::string payload) {
    payload.resize(std::min<std::size_t>(payload.size(), kMuxMaxInformation));
    address |= 1;
    const std::string frame = plain::frame(address, kUih, payload);
    if (g_cur_mux_proc_state != CUR_STATE_DLC3_ESTBLISH)
        set_up();
    reset_mux_input();
    forget_written();
    // A flag is no address: then the frame is none.
    const bool is_frame = address != 0xF9;
    const std::size_t step = cut % 8U + 1U;
    for (std::size_t at = 0; at < frame.size(); at += step) read(frame.substr(at, step));
    if (!is_frame)
        return;
    const auto has = [&payload](const char* part) {
        return payload.find(part) != std::string::npos;
    };
    const bool is_dial = has("atd") || has("ATD");
    const bool is_uart = !is_dial && (has("at") || has("AT"));
    HOLDS(load_shared(is_dial ? g_mux_ppp_dlc : g_mux_atcmd_dlc) == address);
    HOLDS(world::at(host_).written.empty());
    const std::string to_cp = world::at(is_uart ? uart_ : modem_).all_written();
    HOLDS(world::at(is_uart ? modem_ : uart_).written.empty());
    const auto to_platform =
        plain::payloads(world::at(platform_[is_uart ? kUartPort : kModemPort]).all_written());
    HOLDS(world::at(platform_[is_uart ? kModemPort : kUartPort]).written.empty());
    HOLDS(to_cp.empty() || to_cp == payload);
    HOLDS(to_platform.empty() || to_platform == std::vector<std::string>{payload});
    HOLDS(payload.empty() == (to_cp.empty() && to_platform.empty()));
}

// The host takes the frames apart and has the answer again.
void Multiplexer::answer(uint8_t dlc, const std::string& text) {
    forget_written();
    bytes_ += text.size();
    const int result = write_mux_answer(dlc, text.data(), static_cast<int>(text.size()),
                                        &usb_uartport_fd, "/dev/ttyMSM1", &usb_uartport_mutex);
    std::string wire = world::at(host_).all_written();
    if (dlc == 0)
        HOLDS(result == 0 && wire.empty());
    if (dlc < 2)  // no address of a host's frame; nothing tells what to make of it
        return;
    std::string received;
    while (!wire.empty()) {
        HOLDS(wire.size() >= 6);
        const std::size_t size = static_cast<uint8_t>(wire[3]) / 2U;
        HOLDS(wire.size() >= size + 6 && size > 0);
        const std::string information = wire.substr(4, size);
        HOLDS(wire.substr(0, size + 6) ==
              plain::frame(static_cast<uint8_t>(dlc - 2), kUih, information));
        received += information;
        wire.erase(0, size + 6);
    }
    HOLDS(received == text);
}

// Behind a closing flag: nothing that begins a frame, up to the next flag.
std::string junk_of(std::string payload) {
    payload.erase(std::remove(payload.begin(), payload.end(), '\xF9'), payload.end());
    return " " + payload;
}

// Frames that follow each other come out one by one, as they were put together, and each run of
// junk between them once, by its first byte.
void gather(uint8_t cut, const std::string& payloads) {
    const bool is_junk_between = (cut & 0x20) != 0;
    const bool is_flag_shared = (cut & 0x40) != 0 && !is_junk_between;
    std::vector<std::string> frames;
    std::string wire;
    for (std::size_t at = 0; at <= payloads.size();) {
        const std::size_t end = std::min(payloads.find('\0', at), payloads.size());
        const std::string payload =
            payloads.substr(at, std::min<std::size_t>(end - at, kMuxMaxInformation));
        frames.push_back(plain::frame(0x0B, kUih, payload));
        wire += is_flag_shared && !wire.empty() ? frames.back().substr(1) : frames.back();
        if (is_junk_between) {
            wire += junk_of(payload);
            frames.emplace_back("\xF9 ");
        }
        at = end + 1;
    }
    FrameGatherer gatherer;
    std::vector<std::string> pieces;
    const std::size_t step = (cut & 0x80) != 0 ? wire.size() : cut % 16U + 1U;
    for (std::size_t at = 0; at < wire.size(); at += step) {
        std::string_view read = std::string_view(wire).substr(at, step);
        while (const auto piece = gatherer.next(read, 1000)) pieces.emplace_back(*piece);
        gatherer.quiet_from(1000);
    }
    HOLDS(pieces == frames);
}

void stuff(const std::string& text) {
    std::vector<uint8_t> area(text.size() * 2 + 1, 0x55);
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    const UINT32 size = WriteFrame(area.data(), bytes, static_cast<UINT32>(text.size()));
    HOLDS(size <= text.size() * 2 && area[size] == 0x55);
    std::string back;
    for (UINT32 i = 0; i < size; ++i) {
        HOLDS(area[i] != 0x7E);
        back.push_back(static_cast<char>(area[i] == 0x7D ? area[++i] ^ 0x20 : area[i]));
    }
    HOLDS(back == text);
    const auto head = text.substr(0, 200);
    const uint8_t check = make_fcs(bytes, static_cast<UINT8>(head.size()));
    HOLDS(check == (head.empty() ? 0 : plain::frame_check(head)));
    if (!head.empty())
        HOLDS(r_crctable[bytes[0]] == mux_crc_of(bytes[0]));
    static const auto table = make_mux_crc_table();
    HOLDS(table == r_crctable);
}

void refuse_bad_arguments() {
    std::array<char, kMuxAnswerArea> area{};
    int length = 0;
    int direction = 0;
    HOLDS(proc_host_to_ue_cmux_atcmd(nullptr, 1, area.data(), &length, &direction) == -1);
    HOLDS(SA_DefaultCmdHandler_CMUX(nullptr, 1, area.data(), &length, &direction) == -1);
    HOLDS(SA_DefaultMuxDataHandler_CMUX(nullptr, 1, area.data(), &length, &direction) == -1);
    HOLDS(SA_DefaultMuxDataHandler_CMUX("x", 1, nullptr, &length, &direction) == -1);
    g_cur_mux_proc_state = CUR_STATE_ERROR;
    const std::string set_up = plain::frame(0x03, 0x3F, "");
    HOLDS(SA_DefaultMuxDataHandler_CMUX(set_up.data(), 6, area.data(), &length, &direction) == -1);
    HOLDS(assemble_uih_respone_packet(-1, "x", 1, area.data(), &length) == -1);
    HOLDS(assemble_ua_ack_packet(9, area.data(), &length) == 1);
    HOLDS(get_para_counts("", 0) == 3);
}

void Multiplexer::step(char letter) {
    switch (letter) {
        case 'c':
            return command(input_.text());
        case 'r':
            return read(input_.text());
        case 's':
            return set_up();
        case 'd': {
            const uint8_t address = input_.byte();
            const uint8_t cut = input_.byte();
            return data(address, cut, input_.text());
        }
        case 'p':
            return world::advance_ms(input_.byte() * 100);
        case 'a': {
            const uint8_t dlc = input_.byte();
            return answer(dlc, input_.text());
        }
        case 'g': {
            const uint8_t cut = input_.byte();
            return gather(cut, input_.text());
        }
        case 'w':
            return stuff(input_.text());
        case 'n':
            reset_mux_input();
            return refuse_bad_arguments();
        default:
            return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const world::Run run;
    FuzzInput input(data, size);
    Multiplexer(input).play();
    HOLDS(world::is_free(&usb_uartport_mutex) && world::is_free(&mdm_mutex));
    HOLDS(world::is_free(&mdm_uartport_mutex) && world::is_free(&g_mutex_usb_uartport_devie));
    return 0;
}
