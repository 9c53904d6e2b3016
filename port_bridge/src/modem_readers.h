// Thread entries that carry what CP says to the host port that owns the channel. The argument is
// a thread_info_t whose from fields name the modem channel; it must outlive the thread.
#pragma once

void* modem_to_usb_bridge_smd(void* thread_info);
void* modem_to_usb_bridge_mhi(void* thread_info);
void* modem_to_usb_bridge_glink(void* thread_info);
void* modem_to_usb_bridge_glink_atport(void* thread_info);
void* modem_to_usb_bridge_glink_uartport(void* thread_info);
