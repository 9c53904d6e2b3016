// Diagnostics library (libdiag) as this daemon calls it.
#pragma once

#include <cstdint>

// One log site. Constant data; the library keeps the pointer only for the length of the call.
struct vexa_diag_message {
    uint16_t line;
    uint16_t subsystem;
    uint32_t level_mask;
    const char* format;
    const char* file;
};

extern "C" {
// 1 when the diagnostic service is there.
int Diag_LSM_Init(uint8_t* environment);
// `message->format` with the arguments that follow; the first is always the function's name.
void msg_sprintf(const vexa_diag_message* message, ...);
// Switches the diagnostic logging mode (7: logging over PCIe).
void diag_switch_logging(int mode, char* peripheral);
}
