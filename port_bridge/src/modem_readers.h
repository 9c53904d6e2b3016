// Thread entries that carry what CP says to the host port that owns the channel. The argument is
// a thread_info_t whose from fields name the modem channel; it must outlive the thread.
#pragma once

#include "thread_info.h"

void* modem_to_usb_bridge_smd(void* thread_info);
void* modem_to_usb_bridge_mhi(void* thread_info);
void* modem_to_usb_bridge_glink(void* thread_info);
void* modem_to_usb_bridge_glink_atport(void* thread_info);
void* modem_to_usb_bridge_glink_uartport(void* thread_info);

// Publishes the descriptor slots and the mutex copy of the host port for the writers of
// host_port_writers.h. Start-up calls it before any thread can write to the port; a GLINK member
// that was started without it does it itself. Nothing for the plain members.
void publish_host_port(void* (*entry)(void*), const thread_info_t& info);
