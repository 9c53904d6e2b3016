// The thread that carries the platform's answers to the host ports.
#pragma once

// Thread entry; `arg` is an array of kPortCount thread_info_t in the order of PortIndex, each with
// its host port as the to side. Never returns.
void* recv_data_handler(void* arg);
