// One message to or from the app platform on a connection.
#pragma once

#include "vexa_common_def.h"

inline constexpr const char* kPlatformSocketPath = "/dev/socket/qmux_webs/server_webs";

extern int g_reconn_client_sockfd;  // made by the last successful reconnect_app_platform

int client_send_msg(int sockfd, const char* buf, int buf_len, int flag, char* out_buf, int* out_len,
                    vexa_ext_info* ext_info);
int client_recv_data_from_platform(int sockfd, char* buf, int data_len, int mode,
                                   vexa_ext_info* ext_info);
int recv_with_timeout(int sockfd, char* buf, int read_len, int flag, int time_out);
int client_report_port_name(int sockfd, port_name_enum_type port_name);
int reconnect_app_platform(int sockfd);
void reset_glocal_client_sockfd(int* gloc_fd);
