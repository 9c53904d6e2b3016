// Roads into the module beside its host ports.
#pragma once

#include <memory>
#include <string>

#include "mux_link.h"
#include "numbered_traffic.h"

// A client of the daemon's UDP server.
Road udp_road(Module& module);
// Makes the UART a multiplexer and uses its dial channel: from then on the modem's answers on the
// modem port's channel belong there.
void open_both_channels(Module& module, MuxLink& link);
// The UART after it became a multiplexer; the link lives longer than the road.
Road mux_road(MuxLink& link);
// The modem port while the UART is a multiplexer: the platform answers there, the modem on the dial
// channel, which was used before.
Road modem_beside_mux_road(Module& module, MuxLink& link);

// The QMI service beside the daemon, in the module, and a client of it in this process.
class QmiRoad {
  public:
    explicit QmiRoad(Module& module);
    ~QmiRoad();
    QmiRoad(const QmiRoad&) = delete;
    QmiRoad& operator=(const QmiRoad&) = delete;

    Road road();
    // The client goes, whatever it waits for, and another one comes.
    void disconnect();
    void connect();
    [[nodiscard]] const std::string& socket() const { return socket_; }
    // The service's process, for /proc.
    [[nodiscard]] int host_pid() const { return module_.outer_pid(host_); }

  private:
    struct Client;
    Module& module_;
    std::string folder_;
    std::string socket_;
    int host_ = -1;
    std::unique_ptr<Client> client_;
};
