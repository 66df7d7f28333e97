// Measures the emulated line by itself: writes bursts into one side's terminal and times their
// arrival on the other, so the benchmark can tell the emulator's share of a round trip from the
// bridges' share. Usage: line_probe SLAVE_A SLAVE_B BYTES [COUNT]
// Prints "bytes=N line_us=L avg_us=A min_us=M over_us=O" (one way, over = avg - line time).
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

double nowUs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

int openRaw(const char* path) {
    int fd = open(path, O_RDWR | O_NOCTTY);
    if (fd < 0) return fd;
    termios t;
    tcgetattr(fd, &t);
    cfmakeraw(&t);
    t.c_cc[VMIN] = 1;  // the bridge's own read settings
    t.c_cc[VTIME] = 10;
    tcsetattr(fd, TCSANOW, &t);
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: line_probe SLAVE_A SLAVE_B BYTES [COUNT]\n");
        return 2;
    }
    int a = openRaw(argv[1]), b = openRaw(argv[2]);
    int bytes = atoi(argv[3]), count = argc > 4 ? atoi(argv[4]) : 30;
    if (a < 0 || b < 0 || bytes <= 0 || bytes > 4096 || count <= 0) {
        fprintf(stderr, "line_probe: bad arguments or terminals\n");
        return 2;
    }
    unsigned char buf[4096];
    memset(buf, 0x41, sizeof buf);
    double sum = 0, best = 1e18;
    for (int k = 0; k < count; ++k) {
        double t0 = nowUs();
        if (write(a, buf, static_cast<size_t>(bytes)) != bytes) return 1;
        int got = 0;
        while (got < bytes) {
            pollfd p{b, POLLIN, 0};
            if (poll(&p, 1, 5000) <= 0) {
                fprintf(stderr, "line_probe: bytes lost on the line\n");
                return 1;
            }
            ssize_t r = read(b, buf, sizeof buf);
            if (r > 0) got += static_cast<int>(r);
        }
        double d = nowUs() - t0;
        sum += d;
        if (d < best) best = d;
        usleep(20000);
    }
    double line = bytes * 1e6 / 57600.0;
    printf("bytes=%d line_us=%.1f avg_us=%.1f min_us=%.1f over_us=%.1f\n", bytes, line, sum / count,
           best, sum / count - line);
    return 0;
}
