// Daemon entry: start-up in its fixed order, then the main thread parks for good.
#include <stdio.h>
#include <unistd.h>

#include "BlemacMapIpManager.h"
#include "Monitor.h"
#include "ProcessContext.h"
#include "SerialToEth.h"

int main() {
    // Line-buffered even into a file or a pipe: each line reaches the log or the journal when it
    // is printed, not a buffer later, and a kill loses no line already printed.
    setvbuf(stdout, nullptr, _IOLBF, 0);

    // Step 1: the shared map table, attached before anything else starts.
    BlemacMapIpManager::instance();

    // Steps 2-3: the bridge is created once and never destroyed; run() returns once its three
    // worker threads are up.
    SerialToEth* bridge = new SerialToEth();
    bridge->run();

    // Step 4: registry lock, monitor queue, status record, fault trap, tick timer.
    ProcessContext* context = ProcessContext::instance();
    // Step 5: on failure it reports and start-up goes on without a monitor.
    startMonitorThread(context);

    for (;;) sleep(100000);
}
