// Line settings of the module's UART, for the UART's host reader alone. No lock: tcsetattr may wait
// for output to drain.
#pragma once

#include <termios.h>

extern termios tio;     // working copy, made raw and applied
extern termios tiosfd;  // as found when the UART was opened

// 0 on success, -1 after a perror text. Any speed but 2400, 4800, 115200 and 460800 gives 9600.
int set_uart_attr(int fd, int nSpeed, int nBits, char nEvent, int nStop);
void xget1(int fd, termios* t, termios* oldt);
// Result of tcsetattr; a failure is printed and the port used as it is.
int xset1(int fd, termios* settings, const char* device);
