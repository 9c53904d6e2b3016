// The three connections to the app platform and the thread that receives its answers.
#pragma once

// Opens the port's connection and reports the port on it, as one step for senders. 0 on success
// (also when it was open), -3 when the platform does not take it, -2 without a socket.
int init_socket_client();
int init_socket_client_atport();
int init_socket_client_uartport();

// Sends a command or data on a port's connection. Returns what client_send_msg returns
// (vexa_socket_client.h), -1 for bad arguments, -6 when the send failed and the command is not
// one worth waiting for (then it is CP's). `cmd_type` is the port's mode. Called on an input
// source's thread without any lock; retries for about 5 s.
int send_data_to_app_platform(int socketfd, const char* buf, int buf_len, int flag, char* out_buf,
                              int* out_len, int cmd_type);

// The same for a known port: the echo text is kept for it and retries use its current connection.
struct PortRecord;
int send_data_to_app_platform(const PortRecord& port, const char* buf, int buf_len, int flag,
                              char* out_buf, int* out_len, int cmd_type);

// Receiver thread; `arg` is an array of three thread_info_t: modem, AT, UART port. Never returns.
void* recv_data_handler(void* arg);
