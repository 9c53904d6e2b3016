#include "device_control.h"

#include "module_space.h"

bench::DeviceState& DeviceControl::words() const {
    return space_.device(index_);
}

void DeviceControl::raise(int events) {
    words().pending_events |= static_cast<std::uint32_t>(events);
    space_.wake(index_);
}

void DeviceControl::fail_writes(int error, int times) {
    words().write_error = amount(error);
    words().write_refusals = amount(times);
}

void DeviceControl::fail_reads(int error, int times) {
    words().read_error = amount(error);
    words().read_refusals = amount(times);
}

void DeviceControl::fail_opens(int error, int times) {
    words().open_error = amount(error);
    words().open_refusals = amount(times);
}

void DeviceControl::fail_fcntl(int error, int times) {
    words().control_error = amount(error);
    words().control_refusals = amount(times);
}

void DeviceControl::fail_tcsetattr(int error, int times) {
    words().settings_error = amount(error);
    words().settings_refusals = amount(times);
}
