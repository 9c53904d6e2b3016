// Thread entries that carry what a host types to the AT engine. The argument is a thread_info_t
// whose from fields name the host port; it is copied.
#pragma once

void* usb_to_modem_bridge(void* thread_info);
void* usb_atport_to_modem_bridge(void* thread_info);
void* usb_uartport_to_modem_bridge(void* thread_info);
