// The pause between an answer's last byte at the host and the signal that ends the command's wait:
// it lets the command's thread reach its wait, and gives the bytes a head start. The threads that
// read answers call it.
#pragma once

// 1 ms.
void pause_before_signal();
