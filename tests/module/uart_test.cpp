// The UART: its rules of opening, and its line settings.
#include <termios.h>

#include "module.h"

namespace {

constexpr const char* kUart = "/dev/ttyMSM1";
constexpr int kForEver = -1;

ModuleOptions laid_first() {
    ModuleOptions options;
    options.start = false;
    options.ready_devices = {"/dev/at_usb0", "/dev/at_usb1", "/dev/at_mdm0", "/dev/smd7",
                             "/dev/smd8"};
    return options;
}

void expect_road(Module& module, HostPort& host, ModemChannel& channel) {
    host.write("AT+CFUN?\r");
    channel.expect("AT+CFUN?\r");
    channel.send("\r\nOK\r\n");
    host.expect("\r\nOK\r\n");
    EXPECT_TRUE(module.daemon_runs());
}

TEST(UartPort, IsRawAt115200Baud) {
    Module module;
    EXPECT_EQ(module.device(kUart).settings(), 1);
    EXPECT_EQ(module.device(kUart).speed(), static_cast<unsigned>(B115200));
    module.wait_for_log("uart fcntl=0\n");
    module.wait_for_log("tcsetattr for /dev/ttyMSM1 success.\r\n");
}

TEST(UartPort, SixtyFirstFailedOpenEndsItsReaderAlone) {
    Module module(laid_first());
    module.device(kUart).fail_opens(EBUSY, kForEver);
    module.start();
    module.wait_for_log("return NULL.");
    EXPECT_EQ(module.log_count("Device file already open!"), 61);
    EXPECT_EQ(module.log_count("Couldn't open device file: 16"), 1);
    expect_road(module, module.modem_port(), module.modem_channel());
    expect_road(module, module.at_port(), module.at_channel());
}

TEST(UartPort, SixtyFailedOpensAreSurvived) {
    Module module(laid_first());
    module.device(kUart).fail_opens(EBUSY, 60);
    module.start();
    module.wait_until([&] { return module.device(kUart).is_served(); }, "the UART");
    expect_road(module, module.uart_port(), module.uart_channel());
    EXPECT_EQ(module.log_count("Device file already open!"), 60);
}

TEST(UartPort, FailuresAreCountedAcrossASuccessfulOpen) {
    Module module(laid_first());
    module.device(kUart).fail_opens(EBUSY, 60);
    module.start();
    module.wait_until([&] { return module.device(kUart).is_served(); }, "the UART");
    module.device(kUart).fail_opens(EIO, kForEver);
    module.uart_port().replug();
    module.wait_for_log("Couldn't open device file: 5");
    module.wait_for_log("return NULL.");
    EXPECT_EQ(module.log_count("Couldn't open device file"), 1);
}

TEST(UartPort, DriverThatIsNotReadyIsTriedAgainAfterAPause) {
    for (const int error : {ENOENT, ENODEV}) {
        Module module(laid_first());
        module.device(kUart).fail_opens(error, 1);
        module.start();
        module.wait_until([&] { return module.device(kUart).is_served(); }, "the UART");
        EXPECT_EQ(module.log_count("Driver not ready yet; retrying after delay..."), 1);
        expect_road(module, module.uart_port(), module.uart_channel());
    }
}

TEST(UartPort, FailedFcntlEndsItsReaderAtOnce) {
    Module module(laid_first());
    module.device(kUart).fail_fcntl(EINVAL, 1);
    module.start();
    module.wait_for_log("uart fcntl failed!");
    expect_road(module, module.at_port(), module.at_channel());
    EXPECT_EQ(module.device(kUart).settings(), 0);
    // The channel is still read, and the port, left open, still written.
    module.uart_channel().send("unsolicited");
    module.uart_port().expect("unsolicited");
    EXPECT_EQ(module.log_count("return NULL."), 0);
}

TEST(UartPort, FailedSettingsAreReportedAndThePortServed) {
    Module module(laid_first());
    module.device(kUart).fail_tcsetattr(EIO, 1);
    module.start();
    module.wait_for_log("can't tcsetattr for /dev/ttyMSM1.\r\n");
    module.wait_until([&] { return module.device(kUart).is_served(); }, "the UART");
    expect_road(module, module.uart_port(), module.uart_channel());
}

}  // namespace
