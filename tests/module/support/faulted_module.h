// A module in use, on which one thing goes wrong while the others are used on.
#pragma once

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "more_roads.h"
#include "numbered_traffic.h"
#include "pcie_module.h"

enum class Link { usb, pcie };

// Traffic on every road: the three host ports, UDP and QMI; over PCIe the modem port, the pipe and
// the UART, since the pipe has the answers of all who share the AT port.
class FaultedModule {
  public:
    explicit FaultedModule(Link link);

    ModuleWithPlatform both;
    Module& module = both.module;
    FakePlatform& platform = both.platform;
    std::optional<MhiLink> mhi;
    NumberedTraffic traffic{module, platform};
    std::optional<QmiRoad> qmi;

    // Until the port of the device was opened again and is polled.
    void wait_until_served(const std::string& path, int opens, Here here = Here::current());
};

// What goes wrong, and how it is over. The roads that the fault concerns rest meanwhile, and are
// asked again behind it.
struct Fault {
    std::string name;
    std::vector<std::string> concerned;
    std::function<void(FaultedModule&)> begin;
    std::function<void(FaultedModule&)> end = [](FaultedModule&) {};
    Link link = Link::usb;
};

// For the test's name.
std::ostream& operator<<(std::ostream& out, const Fault& fault);

// The same of any of a few alike ends, each of them {module, index}.
template <class End>
struct FaultRow {
    const char* name;
    void (*begin)(const End&);
    void (*end)(const End&);
    bool is_road_used_on = false;  // while the fault lasts
    bool is_typed_on = false;      // which takes the AT port's answers back from UDP and QMI

    [[nodiscard]] Fault at(int index) const {
        return {.name = name,
                .concerned = {},
                .begin =
                    [this, index](FaultedModule& faulted) {
                        begin({faulted, index});
                    },
                .end =
                    [this, index](FaultedModule& faulted) {
                        end({faulted, index});
                    }};
    }
    friend void PrintTo(const FaultRow& row, std::ostream* out) { *out << row.name; }
};

template <class End>
void nothing(const End& /*end*/) {}

// Twice over: the others keep their answers, no thread of the daemon or of the QMI service spins,
// and behind the fault every road is served again, with no more descriptors or memory the second
// time.
void expect_survived(const Fault& fault);

// So many bytes that are no command, always the same.
std::string garbage(std::size_t size);
