// Typing on a host port so that every piece is read by itself.
#pragma once

#include <gtest/gtest.h>

#include <array>

#include "module.h"

// Returns when the daemon has dealt with the piece and waits for the next one. Not for the end of a
// line, whose answer is waited for first, nor right behind an answer.
inline void type_on(Module& module, int port, std::string_view piece, Here here = Here::current()) {
    HostPort& host = module.host_port(port);
    const int polls = module.device(host.path()).polls();
    host.write(piece, here);
    module.wait_until([&] { return module.device(host.path()).polls() > polls; },
                      "a piece to be read on " + host.path(), here);
}

// A test that is run on the modem, the AT and the UART port: 0, 1 and 2.
class PortTest : public testing::TestWithParam<int> {
  protected:
    HostPort& host() { return module.host_port(GetParam()); }
    ModemChannel& channel() { return module.channel(GetParam()); }
    void type(std::string_view piece, Here here = Here::current()) {
        type_on(module, GetParam(), piece, here);
    }
    // Key by key, the end of the line too.
    void type_by_hand(std::string_view line) {
        for (const char& key : line.substr(0, line.size() - 1)) type({&key, 1});
        host().write(line.substr(line.size() - 1));
    }
    // A line and what reaches CP of it; CP answers OK.
    void command(std::string_view line, std::string_view sent, Here here = Here::current()) {
        host().write(line, here);
        channel().expect(sent, here);
        answer("\r\nOK\r\n", here);
    }
    // CP says something and the host gets exactly that.
    void answer(std::string_view text, Here here = Here::current()) {
        channel().send(text, here);
        host().expect(text, here);
    }
    // Typed characters come back on the USB ports only.
    std::string echoed(std::string_view keys) const {
        return GetParam() == 2 ? std::string() : std::string(keys);
    }

    Module module;
};

inline std::string port_test_name(const testing::TestParamInfo<int>& info) {
    return std::array{"modem", "at", "uart"}[static_cast<std::size_t>(info.param)];
}
