// Process entry: diagnostics, PCIe or USB, then the bridge, which in practice never returns.
#include <unistd.h>

#include "diag.h"
#include "log.h"
#include "mhi_monitor.h"
#include "vexa_port_bridge.h"

int main() {
    VEXA_LOG("%s enter. 201909191715.%d.%d.\r\n", "main", 0, 0);
    if (Diag_LSM_Init(nullptr) != 1)
        VEXA_LOG("Diag_LSM_Init %s failed %d, %d!!.\r\n", "main", 0, 0);
    vexa_linux_dev_init();
    init_vexa_port_bridge();
    while (true) sleep(10);
}
