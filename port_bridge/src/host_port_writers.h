// Text of the engine's own for a host port.
#pragma once

// What a host sees when the platform does not answer.
inline constexpr char kPlatformDownText[] = "app-plat is not running, plz wait....\r\n";

struct PortRecord;

// -1 for a null buffer or zero length, else the result of the write. Each takes its device's
// mutexes for the write; `flag` is not used. Any thread that holds no device mutex.
int send_result_to_usb_modem(const char* buf, int buf_len, int flag);
int send_result_to_usb_atport(const char* buf, int buf_len, int flag);
int send_result_to_usb_uartport(const char* buf, int buf_len, int flag);
// The engine's answer on the modem or the AT port; nothing for the UART port and for null.
void answer_usb_port(const PortRecord* port, const char* text);

// Mode changes of the modem port from outside the engine. -1 for a negative argument, else 0.
int vexa_enter_sms_mode(int timeout_exit);
int vexa_enter_hex_mode(int timeout_exit);
int vexa_enter_atcmd_mode(int timeout_do);
