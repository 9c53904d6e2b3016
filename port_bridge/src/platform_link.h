// The three connections to the app platform.
//
// A connection's lock covers opening it together with its port report, each send, and closing, so
// that no command overtakes the report and no sender uses a number that was closed and given to
// somebody else. It is held for no wait but that of a send. Only the receiver closes connections.
#pragma once

#include "port_state.h"

// Opens the port's connection and reports the port on it, as one step for senders. 0 on success
// (also when it was open), -3 when the platform does not take it, -2 without a socket. The receiver
// goes on trying: after -3 the unconnected socket stays in the port's slot and hangs up, after -2
// lacked_platform_socket tells.
int init_socket_client();
int init_socket_client_atport();
int init_socket_client_uartport();

// Sends a command or data on a port's connection. Returns what client_send_msg returns
// (vexa_socket_client.h), -1 for bad arguments, -6 when the send failed and the command is not
// one worth waiting for (then it is CP's). `cmd_type` is the port's mode. `buf` is buf_len bytes.
// Called on an input source's thread with at most the port's command turn; retries for about 5 s.
int send_data_to_app_platform(int socketfd, const char* buf, int buf_len, int flag, char* out_buf,
                              int* out_len, int cmd_type);

// The same for a port, when it is known: the echo text is kept for it and retries use its current
// connection. Null: on `socketfd`, as above.
int send_data_to_app_platform(const PortRecord* port, int socketfd, const char* buf, int buf_len,
                              int flag, char* out_buf, int* out_len, int cmd_type);

inline constexpr int kSendToCp = -6;

// For the receiver: shuts the connection down, so that a sender stuck in it lets go, and closes it.
void close_platform_connection(const PortRecord& port);
int open_platform_connection(const PortRecord& port);
// Whether the port's init_socket_client... ever ended without a socket: an empty slot is then the
// receiver's to fill.
bool lacked_platform_socket(const PortRecord& port);
// Readable when another thread than the receiver opened a connection or failed to; -1 while the
// system has no descriptor for it.
int platform_wake_descriptor();
