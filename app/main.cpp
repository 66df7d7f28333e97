// Daemon entry: start-up in its fixed order, then the main thread parks for good.
#include <unistd.h>

int main() {
    for (;;) sleep(100000);
}
