#pragma once

#include <pthread.h>

// One bridge direction: read from here, write to there. The records point at the shared
// descriptors of descriptors.h, so copies of a record are harmless.
struct thread_info_t {
    const char* from_file_path;
    const char* to_file_path;
    int* from_fd;  // the source's reader opens it and stores it here under from_mutex
    int* to_fd;
    pthread_mutex_t* from_mutex;
    pthread_mutex_t* to_mutex;
    const char* to_file_path_pcie;  // second destination on PCIe; null without PCIe
    int* to_fd_pcie;
    int pcie_valid;  // 1 in the record whose source is the PCIe AT pipe, else 0
};
