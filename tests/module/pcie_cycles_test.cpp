// The PCIe channels come and go while every port is in use.
#include "pcie_module.h"

namespace {

// Asks one command after the other on a host port and knows where its answers may come.
class Talker {
  public:
    Talker(HostPort& port, std::string name) : port_(port), name_(std::move(name)) {}

    void ask_if_free() {
        if (waits_)
            return;
        port_.write("AT+" + name_ + std::to_string(++asked_) + "\r");
        waits_ = true;
    }
    // `text` is what one of the places where the answer may come has got.
    void look(const std::string& text) {
        const std::string answer = "<" + name_ + std::to_string(asked_) + ">";
        if (text.find(answer) != std::string::npos)
            waits_ = false;
    }
    bool is_free() const { return !waits_; }
    int answered() const { return waits_ ? asked_ - 1 : asked_; }
    int asked() const { return asked_; }
    const std::string& name() const { return name_; }

  private:
    HostPort& port_;
    std::string name_;
    int asked_ = 0;
    bool waits_ = false;
};

int count(const std::string& text, const std::string& part) {
    int found = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++found;
    return found;
}

class Traffic {
  public:
    explicit Traffic(Module& module) : module_(module) {}

    // Takes what came, answers what was asked, and asks anew on each port that has its answer.
    void round() {
        for (ModemChannel* channel :
             {&module_.modem_channel(), &module_.at_channel(), &module_.uart_channel()})
            answer_on(*channel);
        take(module_.modem_port(), modem_text_);
        take(module_.uart_port(), uart_text_);
        take(module_.at_port(), at_text_);
        take(module_.pcie_pipe(), at_text_);
        modem_.look(modem_text_);
        uart_.look(uart_text_);
        usb_.look(at_text_);
        pipe_.look(at_text_);
    }
    void ask() {
        for (Talker* talker : {&modem_, &usb_, &uart_, &pipe_}) talker->ask_if_free();
    }
    void finish(Here here = Here::current()) {
        module_.wait_until(
            [this] {
                round();
                return modem_.is_free() && usb_.is_free() && uart_.is_free() && pipe_.is_free();
            },
            "the last answers", here);
    }
    int answered() const {
        return modem_.answered() + usb_.answered() + uart_.answered() + pipe_.answered();
    }
    void check() const {
        check(modem_, modem_text_);
        check(uart_, uart_text_);
        check(usb_, at_text_);
        check(pipe_, at_text_);
        for (const Talker* talker : {&usb_, &pipe_})
            EXPECT_EQ(count(modem_text_ + uart_text_, "<" + talker->name()), 0);
    }

  private:
    static void answer_on(ModemChannel& channel) {
        const std::deque<std::string> asked = channel.received();
        channel.forget_received();
        for (const std::string& line : asked)
            channel.send("\r\n<" + line.substr(3, line.size() - 4) + ">\r\n\r\nOK\r\n");
    }
    static void take(HostPort& port, std::string& text) {
        text += port.received();
        port.forget_received();
    }
    static void check(const Talker& talker, const std::string& text) {
        for (int number = 1; number <= talker.asked(); ++number) {
            const std::string answer = "<" + talker.name() + std::to_string(number) + ">";
            EXPECT_EQ(count(text, answer), 1) << answer;
        }
    }

    Module& module_;
    Talker modem_{module_.modem_port(), "MODEM"};
    Talker usb_{module_.at_port(), "USB"};
    Talker uart_{module_.uart_port(), "UART"};
    Talker pipe_{module_.pcie_pipe(), "PIPE"};
    std::string modem_text_;
    std::string uart_text_;
    std::string at_text_;  // of the USB AT port and of the pipe: an answer comes on one of them
};

TEST(PcieCycles, AThousandConnectionsDuringTrafficLoseAndDoubleNoAnswer) {
    constexpr int kCycles = 1000;
    Module module(pcie_options());
    MhiLink link(module);
    Traffic traffic(module);
    link.connect();
    // The modem's answers go to the pipe from now on, and nowhere while it is not open yet.
    module.wait_until([&] { return module.device(kMhiPipe).is_served(); }, "the pipe");
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        const std::size_t from = module.log_size();
        module.send_uevent(mhi_uevent({"32=DISCONNECTED", "33=DISCONNECTED"}));
        module.send_uevent(mhi_uevent({"32=CONNECTED", "33=CONNECTED"}));
        module.wait_until(
            [&] {
                traffic.round();
                traffic.ask();
                return traffic.answered() >= cycle / 4 &&
                       module.log_has("MHI channel state: 3,6,0\r\n", from);
            },
            "the channels to be connected again, and answers");
    }
    traffic.finish();
    for (int more = 0; more < 3; ++more) {
        traffic.ask();
        traffic.finish();
    }
    traffic.check();
    EXPECT_EQ(module.log_count("MHI channel state: 6,3,0\r\n"), kCycles);
    EXPECT_EQ(module.log_count("Error receving uevent msg"), 0);
}

}  // namespace
