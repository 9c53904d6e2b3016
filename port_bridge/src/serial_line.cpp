#include "serial_line.h"

#include <cstdio>

termios tio{};
termios tiosfd{};

namespace {

speed_t line_speed(int bits_per_second) {
    switch (bits_per_second) {
        case 2400:
            return B2400;
        case 4800:
            return B4800;
        case 115200:
            return B115200;
        case 460800:
            return B460800;
        default:
            return B9600;
    }
}

tcflag_t character_size(int bits) {
    if (bits == 7)
        return CS7;
    return bits == 8 ? CS8 : 0;
}

void set_parity(termios& settings, char parity) {
    if (parity == 'O') {
        settings.c_iflag |= INPCK | ISTRIP;
        settings.c_cflag |= PARENB | PARODD;
    }
    if (parity == 'E') {
        settings.c_iflag |= INPCK | ISTRIP;
        settings.c_cflag |= PARENB;
        settings.c_cflag &= ~static_cast<tcflag_t>(PARODD);
    }
    if (parity == 'N')
        settings.c_cflag &= ~static_cast<tcflag_t>(PARENB);
}

void set_stop_bits(termios& settings, int stop_bits) {
    if (stop_bits == 1)
        settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB);
    if (stop_bits == 2)
        settings.c_cflag |= CSTOPB;
}

}  // namespace

int set_uart_attr(int fd, int nSpeed, int nBits, char nEvent, int nStop) {
    printf("set_uart_attr fd:%d, nspeed:%d, nBits:%d, event:%c, stop:%d.\r\n", fd, nSpeed, nBits,
           nEvent, nStop);
    termios old_settings{};
    if (tcgetattr(fd, &old_settings) != 0) {
        perror("SetupSerial 1\r\n");
        return -1;
    }
    printf("get fd:%d old attr ok. \r\n", fd);

    termios settings{};
    settings.c_cflag = CLOCAL | CREAD | character_size(nBits);
    set_parity(settings, nEvent);
    cfsetispeed(&settings, line_speed(nSpeed));
    cfsetospeed(&settings, line_speed(nSpeed));
    set_stop_bits(settings, nStop);
    settings.c_cc[VTIME] = 0;
    settings.c_cc[VMIN] = 0;
    tcflush(fd, TCIFLUSH);
    if (tcsetattr(fd, TCSANOW, &settings) != 0) {
        perror("com set error.\r\n");
        return -1;
    }
    printf("set fd:%d done!\r\n", fd);
    return 0;
}

void xget1(int fd, termios* t, termios* oldt) {
    tcgetattr(fd, oldt);
    *t = *oldt;
}

int xset1(int fd, termios* settings, const char* device) {
    cfmakeraw(settings);
    cfsetspeed(settings, B115200);
    const int result = tcsetattr(fd, TCSAFLUSH, settings);
    if (result < 0)
        printf("can't tcsetattr for %s.\r\n", device);
    else
        printf("tcsetattr for %s success.\r\n", device);
    return result;
}
