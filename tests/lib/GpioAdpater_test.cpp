// GpioAdpater against a stand-in GPIO driver defined in this program: open, ioctl and close here
// serve the fake node and the descriptors it handed out, and pass every other call on to the next
// definition (sanitizer runtime or C library). The adapter is the production code, unchanged.
#ifdef _FORTIFY_SOURCE
#undef _FORTIFY_SOURCE  // its inline open() wrapper would clash with the definition below
#endif

#include "GpioAdpater.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "DriverTestSupport.h"
#include "debug.h"

namespace {

constexpr char kFakeNode[] = "/nonexistent-s2e-gpio/gpiochip-fake";

template <class Fn>
Fn next(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

// What the stand-in is told to do; tests set it while no adapter call runs.
struct Script {
    uint32_t level = 0;  // answer to read requests
    bool failOpen = false, failPinmux = false, failPin = false;
    bool holdFirstPinmux = false;  // serialisation probe, see overlapWith
};

// Has a lock of its own: it must stay consistent without the mutex under test.
struct FakeGpioDriver {
    std::mutex lock;
    std::condition_variable changed;
    Script script;
    std::string trace;  // every call that reached the driver, in order
    std::set<int> handles;
    bool holding = false, overlapSeen = false;
    int opens = 0;
};

// Created on first use, by whichever call comes first; never destroyed, since close() calls
// during process exit still consult it.
FakeGpioDriver& fake() {
    static FakeGpioDriver* const driver = new FakeGpioDriver;
    return *driver;
}

bool isFakeHandle(int fd) {
    std::lock_guard<std::mutex> guard(fake().lock);
    return fake().handles.count(fd) != 0;
}

int fakeOpen(int flags) {
    std::lock_guard<std::mutex> guard(fake().lock);
    ++fake().opens;
    fake().overlapSeen |= !fake().handles.empty();
    fake().changed.notify_all();
    fake().trace += (flags & O_ACCMODE) == O_RDWR ? "open rw|" : "open other|";
    // A real descriptor, so that numbers never collide with the rest of the process.
    const int fd = fake().script.failOpen ? -1 : memfd_create("fake-gpio", MFD_CLOEXEC);
    if (fd >= 0) fake().handles.insert(fd);
    return fd;
}

int fakeIoctl(unsigned long code, GpioRequest* r) {
    std::unique_lock<std::mutex> guard(fake().lock);
    const bool pinmux = code == GPIO_SET_PINMUX;
    const char* name = pinmux                   ? "pinmux"
                       : code == GPIO_WRITE_PIN ? "write"
                       : code == GPIO_READ_PIN  ? "read"
                                                : "unknown";
    char line[80];
    snprintf(line, sizeof line, "%s %u %u %u %u|", name, r->bank, r->pin, r->value, r->reserved);
    fake().trace += line;
    if (pinmux && fake().script.holdFirstPinmux && !fake().holding) {
        fake().holding = true;
        fake().changed.notify_all();
        const int opensBefore = fake().opens;
        fake().changed.wait_for(guard, std::chrono::milliseconds(300),
                                [&] { return fake().opens != opensBefore; });
    }
    if (pinmux ? fake().script.failPinmux : fake().script.failPin) return -1;
    if (code == GPIO_READ_PIN) r->value = fake().script.level;
    return 0;
}

}  // namespace

extern "C" int open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const bool hasMode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    const mode_t mode = hasMode ? va_arg(args, mode_t) : 0;
    va_end(args);
    if (std::strcmp(path, kFakeNode) == 0) return fakeOpen(flags);
    return next<int (*)(const char*, int, ...)>("open")(path, flags, mode);
}

extern "C" int ioctl(int fd, unsigned long code, ...) noexcept {
    va_list args;
    va_start(args, code);
    void* argument = va_arg(args, void*);
    va_end(args);
    if (isFakeHandle(fd)) return fakeIoctl(code, static_cast<GpioRequest*>(argument));
    return next<int (*)(int, unsigned long, ...)>("ioctl")(fd, code, argument);
}

extern "C" int close(int fd) {
    if (isFakeHandle(fd)) {
        std::lock_guard<std::mutex> guard(fake().lock);
        fake().trace += "close|";
        fake().handles.erase(fd);
    }
    return next<int (*)(int)>("close")(fd);
}

namespace {

class GpioAdapter : public ::testing::Test {
  protected:
    void SetUp() override {
        std::lock_guard<std::mutex> guard(fake().lock);
        fake().trace.clear();
        fake().script = Script{};
        fake().holding = fake().overlapSeen = false;
    }
    void TearDown() override { debugLevel.store(savedLevel); }
    static std::string trace() {
        std::lock_guard<std::mutex> guard(fake().lock);
        return std::exchange(fake().trace, "");
    }
    // Thread A's first pinmux request waits for another open (up to 300 ms) while thread B starts
    // an operation; reports whether B's open came while A still had the node open.
    static bool overlapWith(GpioAdpater& first, GpioAdpater& second) {
        fake().script.holdFirstPinmux = true;
        std::thread a([&] { first.writePin(1, 1, 1); });
        {
            std::unique_lock<std::mutex> guard(fake().lock);
            EXPECT_TRUE(fake().changed.wait_for(guard, std::chrono::seconds(10),
                                                [] { return fake().holding; }));
        }
        uint8_t level = 0;
        std::thread b([&] { second.readPin(2, 2, &level); });
        a.join();
        b.join();
        std::lock_guard<std::mutex> guard(fake().lock);
        return fake().overlapSeen;
    }

    const int32_t savedLevel = debugLevel.load();
    Script& script = fake().script;
    GpioAdpater gpio{kFakeNode};
    uint8_t level = 0xAA;
};

TEST_F(GpioAdapter, WritePinRequestsAndSums) {
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(gpio.writePin(1, 5, 1), 0); }), "");
    EXPECT_EQ(gpio.writePin(255, 0, 0), 0);
    EXPECT_EQ(trace(),
              "open rw|pinmux 1 5 0 0|write 1 5 1 0|close|"
              "open rw|pinmux 255 0 0 0|write 255 0 0 0|close|");
    // A failed pinmux is logged and counted, but the write still goes out; results add up.
    script.failPinmux = true;
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(gpio.writePin(3, 4, 1), -1); }),
              "set  gpio  pinmux fail\n");
    EXPECT_EQ(trace(), "open rw|pinmux 3 4 0 0|write 3 4 1 0|close|");
    script.failPin = true;
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(gpio.writePin(3, 4, 1), -2); }),
              "set  gpio  pinmux fail\n");
    script.failPinmux = false;
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(gpio.writePin(3, 4, 1), -1); }), "");
}

TEST_F(GpioAdapter, ReadPinRequestsLevelsAndLogLines) {
    script.level = 1;
    debugLevel.store(LOG_INFO);
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(gpio.readPin(2, 3, &level), 0); }), "gpio2_3=1\n");
    EXPECT_EQ(level, 1);
    EXPECT_EQ(trace(), "open rw|pinmux 2 3 0 0|read 2 3 0 0|close|");
    script.failPinmux = true;
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(gpio.readPin(4, 6, &level), -1); }),
              "set  gpio  pinmux fail\nread gpio fail\n");
    EXPECT_EQ(trace(), "open rw|pinmux 4 6 0 0|read 4 6 0 0|close|");
    script.failPin = true;
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(gpio.readPin(4, 6, &level), -2); }),
              "set  gpio  pinmux fail\nread gpio fail\n");
    script.failPinmux = false;
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(gpio.readPin(4, 6, &level), -1); }),
              "read gpio fail\n");
    EXPECT_EQ(level, 0) << "a failed read stores what the request held";
    // At the default threshold success is quiet; only the low byte reaches the caller.
    debugLevel.store(0);
    script = Script{0x1FE};
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(gpio.readPin(2, 3, &level), 0); }), "");
    EXPECT_EQ(level, 0xFE);
}

TEST_F(GpioAdapter, NodeThatCannotBeOpened) {
    const std::string message = std::string("open gpio node ") + kFakeNode + " failed\n";
    script.failOpen = true;
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(gpio.writePin(1, 2, 1), -1); }), message);
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(gpio.readPin(1, 2, &level), -1); }), message);
    EXPECT_EQ(level, 0xAA) << "the caller's byte stays untouched";
    EXPECT_EQ(trace(), "open rw|open rw|");
    script.failOpen = false;
    EXPECT_EQ(gpio.writePin(1, 2, 1), 0) << "the mutex was released";
}

// One adapter keeps B out until A has closed the node; two adapters on one node do not, which
// shows that the probe sees an overlap when there is one.
TEST_F(GpioAdapter, MutexSerialisesOperationsOfOneAdapter) {
    EXPECT_FALSE(overlapWith(gpio, gpio));
    EXPECT_EQ(trace(),
              "open rw|pinmux 1 1 0 0|write 1 1 1 0|close|"
              "open rw|pinmux 2 2 0 0|read 2 2 0 0|close|");
    GpioAdpater other(kFakeNode);
    SetUp();
    EXPECT_TRUE(overlapWith(gpio, other));
}

}  // namespace
