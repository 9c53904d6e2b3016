// An app platform that answers every command with the same words, on a thread of its own.
#pragma once

#include <map>
#include <string>
#include <thread>

#include "unique_fd.h"

namespace compare {

class SmallPlatform {
  public:
    // `listener` is a listening socket at the platform's path.
    explicit SmallPlatform(bench::UniqueFd listener);
    ~SmallPlatform();
    SmallPlatform(const SmallPlatform&) = delete;
    SmallPlatform& operator=(const SmallPlatform&) = delete;

  private:
    void serve();
    bool take(int fd);

    bench::UniqueFd listener_;
    bench::UniqueFd stop_;
    std::map<int, std::string> streams_;  // by descriptor, which is this map's to close
    std::thread thread_;
};

}  // namespace compare
