// One message to or from the app platform on a connection.
#pragma once

#include "vexa_common_def.h"

inline constexpr const char* kPlatformSocketPath = "/dev/socket/qmux_webs/server_webs";

inline constexpr int kBadArguments = -1;
inline constexpr int kNoSocket = -2;
inline constexpr int kConnectFailed = -3;
inline constexpr int kTimedOut = -5;

extern int g_reconn_client_sockfd;  // made by the last successful reconnect_app_platform

// Sends `buf` as one pack. `ext_info->cmd_type` is the port's mode. The answer does not come back
// here: `out_buf` is only checked for presence and *out_len set to 0. What send(2) returned, or
// -1 for bad arguments. A payload over 131,028 bytes stops the process. Senders on one connection
// take turns by the caller's lock.
int client_send_msg(int sockfd, const char* buf, int buf_len, int flag, char* out_buf, int* out_len,
                    vexa_ext_info* ext_info);
// One receive; the payloads of all packs in it are appended to the NUL-terminated text in `buf`,
// an area of kTextAreaSize whatever `data_len` says. The sum of the payload lengths, which is more
// than the text's when a payload holds a NUL; 0 for a receive error, end of stream or a bad head
// (the packs before it stay in `buf`); -1 for bad arguments. `ext_info->cmd_type` is that of the
// last pack. A payload over 4,096 bytes or an answer over the area stops the process.
int client_recv_data_from_platform(int sockfd, char* buf, int data_len, int mode,
                                   vexa_ext_info* ext_info);
// -5 when nothing came in `time_out` seconds, -3 when the descriptor is not ready, else the result
// of recv(2). The socket is blocking afterwards.
int recv_with_timeout(int sockfd, char* buf, int read_len, int flag, int time_out);
// Result of send(2), or -1 for bad arguments.
int client_report_port_name(int sockfd, port_name_enum_type port_name);

// A close-on-exec stream socket, or -1.
int make_platform_socket();
// 0, or -1 with errno. Never waits: a platform that takes no connections now is a failure, so that
// nobody hangs on it with a lock held. The socket is blocking afterwards.
int connect_to_platform(int sockfd);
// Closes `sockfd` and connects a new socket, kept in g_reconn_client_sockfd. 0, -2, -3.
int reconnect_app_platform(int sockfd);
void reset_glocal_client_sockfd(int* gloc_fd);
