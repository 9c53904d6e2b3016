// The multiplexing host on a module's UART.
#pragma once

#include <string>
#include <string_view>

#include "here.h"
#include "module.h"
#include "mux_host.h"

class MuxLink {
  public:
    // `cut` bytes a read of the daemon's; 0: as it comes.
    explicit MuxLink(Module& module, std::size_t cut = 0) : module_(module), cut_(cut) {}

    // True once the session is up. With a cut, false when this machine stood still so long between
    // two pieces that the daemon may have given a frame up: the caller begins again. The same for
    // the others that return a bool.
    [[nodiscard]] bool open(Here here = Here::current());
    [[nodiscard]] bool send(int dlci, std::string_view text, Here here = Here::current());
    [[nodiscard]] bool expect(int dlci, std::string_view text, Here here = Here::current());
    // Bytes as they stand.
    [[nodiscard]] bool send_raw(std::string_view bytes, Here here = Here::current());

    // What came and is still not taken.
    bench::MuxHost& host();

  private:
    void take_input();
    bool flush(Here here);
    bool write(std::string_view bytes, Here here);
    bool write_piece(std::string_view piece, Here here);
    bool wait_until(const std::function<bool()>& done, const std::string& what, Here here);

    Module& module_;
    std::size_t cut_;
    bool was_slow_ = false;
    bench::MuxHost host_;
};
