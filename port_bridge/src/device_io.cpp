#include "device_io.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "descriptors.h"
#include "log.h"
#include "shared_int.h"
#include "udp_server.h"

namespace {

constexpr int kMostRetries = 5;

// AT-port output belongs to the UDP client while one is served.
bool is_diverted_to_udp(const char* to_filename) {
    return load_shared(g_at_over_sokcet_enable) == 1 &&
           strstr(to_filename, kUsbAtPortPath) != nullptr &&
           load_shared(g_loc_udp_at_server_send_socket) != -1;
}

int write_all(int to_fd, const char* to_filename, int bytes_to_write, const char* buffer,
              int& num_written) {
    int bytes_remaining = bytes_to_write;
    int retry_count = 0;
    while (bytes_remaining > 0) {
        if (!log_goes_to_diag())
            print_log_line(__func__, __LINE__, "====>>>bytes_remaining :%d,%d,%d. \r\n",
                           bytes_remaining, 0, 0);
        errno = 0;  // a write of 0 bytes leaves it alone, and an old EAGAIN is not this write's
        num_written = static_cast<int>(write(to_fd, buffer + (bytes_to_write - bytes_remaining),
                                             static_cast<std::size_t>(bytes_remaining)));
        const int error = errno;
        VEXA_PRINT("====>>>num_written :%d, to_fd:%d, bytes_remaining:%d. \r\n", num_written, to_fd,
                   bytes_remaining);
        if (num_written > 0) {
            bytes_remaining -= num_written;
            VEXA_LOG("write to '%s' returned %i, bytes_remaining: %d.\n", to_filename, num_written,
                     bytes_remaining);
            retry_count = 0;
            continue;
        }
        if (error != EAGAIN || retry_count >= kMostRetries) {
            VEXA_PRINT("Failed to write to '%s' due to err [%s]\n", to_filename, strerror(error));
            return -1;
        }
        VEXA_PRINT(
            "retrying now... Failed to write to '%s'[%d] due to err [%s] or num_written [%d], "
            "retry_count:%d.\n",
            to_filename, to_fd, strerror(error), num_written, retry_count);
        ++retry_count;
        sleep(static_cast<unsigned>(retry_count));
    }
    return 0;
}

}  // namespace

int write_to_device(int to_fd, const char* to_filename, int bytes_to_write, const char* buffer) {
    VEXA_LOG(
        "====>>>write_to_device in, g_loc_udp_at_server_send_socket:%d, to_filename:%s, "
        "to_fd:%d.\r\n",
        load_shared(g_loc_udp_at_server_send_socket), to_filename, to_fd);
    VEXA_LOG(
        "====>>>write_to_device in, g_loc_udp_at_server_socket:%d, g_at_over_sokcet_enable:%d, "
        ":%d.\r\n",
        load_shared(g_loc_udp_at_server_socket), load_shared(g_at_over_sokcet_enable),
        bytes_to_write);
    if (is_diverted_to_udp(to_filename))
        return send_udp_answer(buffer, bytes_to_write);
    if (to_fd < 0) {
        VEXA_LOG("====>>>to_fd=in. to_fd:%d,%d,%d. \r\n", to_fd, 0, 0);
        return -1;
    }
    int num_written = 0;
    const int ret = write_all(to_fd, to_filename, bytes_to_write, buffer, num_written);
    VEXA_LOG("<<<====write_to_device out.num_written:%d,ret:%d,%d.\r\n", num_written, ret, 0);
    return ret;
}

void close_fd_mutexed(const char* file_path, const volatile int* fd, pthread_mutex_t* mutex) {
    // The slots are plain ints; the parameter's qualifiers are those of the public signature.
    int* slot = const_cast<int*>(fd);
    const int lock_error = pthread_mutex_lock(mutex);
    VEXA_LOG("close_fd_mutexed file_path enter:%s, fd:%d.%d\r\n", file_path, *slot, 0);
    if (lock_error != 0) {
        VEXA_LOG("pthread_mutex_lock for '%s' returned %i.  Exiting!.%d.\n", file_path, lock_error,
                 0);
        exit(1);
    }
    note_hang_up(slot);
    close(*slot);
    store_shared(*slot, -1);
    wake_device_reader(slot);
    VEXA_PRINT("close_fd_Mutexed file_path close:%s, fd:%d.\r\n", file_path, *slot);
    VEXA_LOG("close_fd_mutexed file_path close:%s, fd:%d.%d.\r\n", file_path, *slot, 0);
    const int unlock_error = pthread_mutex_unlock(mutex);
    if (unlock_error == 0)
        return;
    VEXA_LOG("pthread_mutex_unlock for '%s' returned %i.  Exiting!%d.\n", file_path, unlock_error,
             0);
    exit(1);
}

void construct_signal_string(char* str, std::size_t size, int bits) {
    constexpr int kNamedBits = TIOCM_DTR | TIOCM_CD | TIOCM_RI | TIOCM_RTS;
    static_assert(kNamedBits == 0xC6);
    snprintf(str, size, "0x%x%s%s%s%s", static_cast<unsigned>(bits & ~kNamedBits),
             (bits & TIOCM_DTR) != 0 ? " | DTR" : "", (bits & TIOCM_CD) != 0 ? " | CD" : "",
             (bits & TIOCM_RI) != 0 ? " | RI" : "", (bits & TIOCM_RTS) != 0 ? " | RTS" : "");
}
