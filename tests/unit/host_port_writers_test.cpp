#include "host_port_writers.h"

#include "engine_fixture.h"
#include "refusing_mutex.h"

namespace {

using Writer = int (*)(const char*, int, int);
constexpr Writer kWriters[] = {send_result_to_usb_modem, send_result_to_usb_atport,
                               send_result_to_usb_uartport};

class HostPortWriters : public EngineFixture {};

TEST_F(HostPortWriters, EachWritesToItsOwnPort) {
    for (int i = 0; i < kPortCount; ++i) {
        EXPECT_EQ(kWriters[i]("\0OK", 3, 0), 0);
        EXPECT_EQ(host(static_cast<PortIndex>(i)).bytes(), std::string("\0OK", 3)) << i;
        EXPECT_EQ(all_hosts(), "") << i;
    }
}

TEST_F(HostPortWriters, NothingIsRefused) {
    const char* const texts[] = {"send_result_to_usb_modem input error.0,0,0.\r\n",
                                 "send_result_to_usb_atport input error.0,0,0.\r\n",
                                 "send_result_to_usb_uartport input error.0,0,0.\r\n"};
    for (int i = 0; i < kPortCount; ++i) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(kWriters[i](nullptr, 3, 0), -1);
        EXPECT_EQ(kWriters[i]("x", 0, 0), -1);
        EXPECT_NE(testing::internal::GetCapturedStdout().find(texts[i]), std::string::npos);
    }
    EXPECT_EQ(all_hosts(), "");
}

TEST_F(HostPortWriters, APortThatIsNotServedOrClosedFails) {
    store_shared(g_fd_usb_modem_device, static_cast<int*>(nullptr));
    store_shared(g_fd_usb_atport_device, static_cast<int*>(nullptr));
    store_shared(g_fd_usb_uartport_device, static_cast<int*>(nullptr));
    const char* const paths[] = {"/dev/at_usb0", "/dev/at_usb1", "/dev/ttyMSM1"};
    for (int i = 0; i < kPortCount; ++i) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(kWriters[i]("x", 1, 0), -1);
        EXPECT_NE(testing::internal::GetCapturedStdout().find("'" + std::string(paths[i]) +
                                                              "' is not served yet.0,0.\r\n"),
                  std::string::npos)
            << i;
    }
    store_shared(g_fd_usb_uartport_device, &usb_uartport_fd);
    usb_uartport_fd = -1;
    EXPECT_EQ(send_result_to_usb_uartport("x", 1, 0), -1);
    EXPECT_EQ(all_hosts(), "");
}

TEST_F(HostPortWriters, AtPortTextGoesToTheLivePipeToo) {
    struct {
        int enabled, state;
        bool open, piped;
        const char* why;
    } const rows[] = {
        {1, VEXA_MHI_CTRL_CONNECTED_FULL, true, true, "live"},
        {0, VEXA_MHI_CTRL_CONNECTED_FULL, true, false, "USB"},
        {1, VEXA_MHI_CTRL_CONNECTED_W, true, false, "one channel only"},
        {1, VEXA_MHI_CTRL_CONFIGURED_FULL, true, false, "not connected"},
        {1, VEXA_MHI_CTRL_CONNECTED_FULL, false, false, "closed"},
    };
    Device pipe(SOCK_STREAM);
    for (const auto& row : rows) {
        store_shared(g_vexa_pcie_enabled, row.enabled);
        store_shared(g_mhi_ctrl_state, row.state);
        usb_atport_fd_pcie = row.open ? pipe.daemon_fd : -1;
        for (const Writer write_text : kWriters) EXPECT_EQ(write_text("x", 1, 0), 0);
        EXPECT_EQ(pipe.bytes(), row.piped ? "x" : "") << row.why;
        EXPECT_EQ(all_hosts(), "xxx") << row.why;
    }
}

TEST_F(HostPortWriters, EachWritesUnderTheMutexesOfItsOwnPort) {
    pthread_mutex_t* const mutexes[kPortCount][2] = {
        {&g_mutex_usb_devie, &usb_mutex},
        {&g_mutex_usb_atport_devie, &usb_atport_mutex},
        {&g_mutex_usb_uartport_devie, &usb_uartport_mutex}};
    for (int mutexes_port = 0; mutexes_port < kPortCount; ++mutexes_port)
        for (pthread_mutex_t* const mutex : mutexes[mutexes_port]) {
            const RefusingMutex held(*mutex);
            for (int i = 0; i < kPortCount; ++i)
                EXPECT_EQ(held.tries_of([i] { kWriters[i]("x", 1, 0); }), i == mutexes_port ? 1 : 0)
                    << "writer " << i << ", mutex of " << mutexes_port;
            EXPECT_EQ(all_hosts(), "xxx") << "it is written all the same";
        }
}

TEST_F(HostPortWriters, TheLivePipeIsWrittenUnderTheWritersMutexToo) {
    Device pipe(SOCK_STREAM);
    store_shared(g_vexa_pcie_enabled, 1);
    store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONNECTED_FULL);
    usb_atport_fd_pcie = pipe.daemon_fd;
    store_shared(g_fd_usb_atport_device, static_cast<int*>(nullptr));  // the pipe is the one write
    pthread_mutex_lock(&usb_atport_mutex);
    std::thread writer([] { send_result_to_usb_atport("x", 1, 0); });
    int held = 0;  // looks in a row: the writer is in the middle of the pipe's write
    for (int ms = 0; ms < 60'000 && held < 5; ++ms) {
        usleep(1000);
        if (pthread_mutex_trylock(&g_mutex_usb_atport_devie) == 0) {
            pthread_mutex_unlock(&g_mutex_usb_atport_devie);
            held = 0;
        } else {
            ++held;
        }
    }
    EXPECT_EQ(held, 5);
    pthread_mutex_unlock(&usb_atport_mutex);
    writer.join();
    EXPECT_EQ(pipe.bytes(), "x");
}

TEST_F(HostPortWriters, ModesOfTheModemPortFromOutside) {
    struct {
        int (*enter)(int);
        int mode;
        const char* prompt;
    } const rows[] = {{vexa_enter_sms_mode, 2, ">"},
                      {vexa_enter_hex_mode, 1, ">"},
                      {vexa_enter_atcmd_mode, 0, ""}};
    for (const auto& row : rows) {
        modem_port.set_mode(USB_PORT_PPP_MODE);
        EXPECT_EQ(row.enter(-1), -1);
        EXPECT_EQ(modem_port.mode(), USB_PORT_PPP_MODE);
        EXPECT_EQ(all_hosts(), "");
        EXPECT_EQ(row.enter(0), 0);
        EXPECT_EQ(modem_port.mode(), row.mode);
        EXPECT_EQ(usb_modem.bytes(), row.prompt);
        EXPECT_EQ(all_hosts(), "");
    }
}

}  // namespace
