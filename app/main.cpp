// Daemon entry: start-up in its fixed order, then the main thread parks for good.
#include <unistd.h>

#include "SerialToEth.h"

int main() {
    SerialToEth* bridge = new SerialToEth();
    bridge->run();
    for (;;) sleep(100000);
}
