#include "mux_output.h"

#include <algorithm>

#include "device_io.h"
#include "log.h"
#include "mutex_guard.h"
#include "mux_session.h"

int write_mux_answer(int dlc, const char* answer, int length, int* host_fd, const char* host_path,
                     pthread_mutex_t* host_mutex) {
    if (dlc == 0) {
        VEXA_LOG("no channel for %d bytes of an answer yet, dropped.%d.%d.\r\n", length, 0, 0);
        return 0;
    }
    // One hold for the whole answer: the frames of two long answers do not mix on a channel.
    const MutexGuard guard(host_mutex);
    int result = 0;
    for (int done = 0; done < length && result >= 0; done += kMuxMaxInformation) {
        char frame[kMuxAnswerArea];
        int frame_length = 0;
        proc_ue_to_host_cmux_response(
            dlc, answer + done, std::min(length - done, kMuxMaxInformation), frame, &frame_length);
        if (frame_length > 0)
            result = write_to_device(*host_fd, host_path, frame_length, frame);
    }
    return result;
}
