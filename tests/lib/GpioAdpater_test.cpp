// GpioAdpater against a stand-in GPIO driver: the requests per operation, their order and
// contents, the summed results, the log lines, and the serialisation by the adapter's mutex.
//
// The stand-in lives in this program: open, ioctl and close are defined here, so the adapter's
// calls bind to them; calls aimed at the fake node (or at descriptors it handed out) are served
// here, everything else goes on to the next definition (the sanitizer runtime's or the C
// library's) through dlsym(RTLD_NEXT, ...). The adapter itself is the production code unchanged.
#ifdef _FORTIFY_SOURCE
#undef _FORTIFY_SOURCE  // its inline open() wrapper would clash with the definition below
#endif

#include "GpioAdpater.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "DriverTestSupport.h"
#include "debug.h"

namespace {

constexpr char kFakeNode[] = "/nonexistent-s2e-gpio/gpiochip-fake";

template <class Fn>
Fn nextDefinition(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

using OpenFn = int (*)(const char*, int, ...);
using IoctlFn = int (*)(int, unsigned long, ...);
using CloseFn = int (*)(int);

int nextClose(int fd) {
    return nextDefinition<CloseFn>("close")(fd);
}

enum class Call { Open, Ioctl, Close };

struct Event {
    Call call;
    int fd;
    unsigned long code;   // ioctl only
    GpioRequest request;  // ioctl only: the record as the adapter handed it in
    int flags;            // open only
};

// The stand-in driver. Its state is shared by the adapter's threads, so it has a lock of its own:
// it must not depend on the mutex under test to stay consistent.
struct FakeGpioDriver {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<Event> events;
    std::set<int> handles;
    uint32_t level = 0;  // what a read request reports
    bool failOpen = false;
    bool openReturnsZero = false;
    bool failPinmux = false;
    bool failWrite = false;
    bool failRead = false;
    // Serialisation probe: the first pinmux request waits (up to the limit) for another open.
    bool holdFirstPinmux = false;
    bool holding = false;
    bool overlapSeen = false;
    int opensSeen = 0;

    void reset() {
        std::lock_guard<std::mutex> guard(lock);
        events.clear();
        // Descriptors that the adapter never closed (a failed test, or the fake descriptor 0).
        for (int fd : handles) {
            if (fd != 0) nextClose(fd);
        }
        handles.clear();
        level = 0;
        failOpen = openReturnsZero = failPinmux = failWrite = failRead = false;
        holdFirstPinmux = holding = overlapSeen = false;
        opensSeen = 0;
    }
    std::vector<Event> takeEvents() {
        std::lock_guard<std::mutex> guard(lock);
        return events;
    }
};

// Never destroyed: close() calls made during process exit still consult it.
FakeGpioDriver& fake() {
    static FakeGpioDriver* const driver = new FakeGpioDriver;
    return *driver;
}

bool isFakeHandle(int fd) {
    std::lock_guard<std::mutex> guard(fake().lock);
    return fake().handles.count(fd) != 0;
}

int fakeOpen(int flags) {
    FakeGpioDriver& d = fake();
    std::unique_lock<std::mutex> guard(d.lock);
    d.events.push_back({Call::Open, -1, 0, {}, flags});
    ++d.opensSeen;
    if (!d.handles.empty()) d.overlapSeen = true;
    d.changed.notify_all();
    if (d.failOpen) {
        errno = ENOENT;
        return -1;
    }
    if (d.openReturnsZero) {
        d.handles.insert(0);
        return 0;
    }
    // A real descriptor, so that numbers never collide with the rest of the process.
    const int fd = memfd_create("fake-gpio", MFD_CLOEXEC);
    if (fd < 0) return -1;
    d.events.back().fd = fd;
    d.handles.insert(fd);
    return fd;
}

int fakeIoctl(int fd, unsigned long code, GpioRequest* request) {
    FakeGpioDriver& d = fake();
    std::unique_lock<std::mutex> guard(d.lock);
    d.events.push_back({Call::Ioctl, fd, code, *request, 0});
    if (code == GPIO_SET_PINMUX) {
        if (d.holdFirstPinmux && !d.holding) {
            d.holding = true;
            d.changed.notify_all();
            const int opensBefore = d.opensSeen;
            d.changed.wait_for(guard, std::chrono::milliseconds(300),
                               [&] { return d.opensSeen != opensBefore; });
        }
        return d.failPinmux ? -1 : 0;
    }
    if (code == GPIO_WRITE_PIN) return d.failWrite ? -1 : 0;
    if (code == GPIO_READ_PIN) {
        if (d.failRead) return -1;
        request->value = d.level;
        return 0;
    }
    errno = ENOTTY;
    return -1;
}

int fakeClose(int fd) {
    FakeGpioDriver& d = fake();
    std::lock_guard<std::mutex> guard(d.lock);
    d.events.push_back({Call::Close, fd, 0, {}, 0});
    d.handles.erase(fd);
    return fd == 0 ? 0 : nextClose(fd);
}

}  // namespace

extern "C" int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list args;
        va_start(args, flags);
        mode = static_cast<mode_t>(va_arg(args, int));
        va_end(args);
    }
    if (std::strcmp(path, kFakeNode) == 0) return fakeOpen(flags);
    return nextDefinition<OpenFn>("open")(path, flags, mode);
}

extern "C" int ioctl(int fd, unsigned long code, ...) noexcept {
    va_list args;
    va_start(args, code);
    void* argument = va_arg(args, void*);
    va_end(args);
    if (isFakeHandle(fd)) return fakeIoctl(fd, code, static_cast<GpioRequest*>(argument));
    return nextDefinition<IoctlFn>("ioctl")(fd, code, argument);
}

extern "C" int close(int fd) {
    if (isFakeHandle(fd)) return fakeClose(fd);
    return nextClose(fd);
}

namespace {

// Raises the log threshold for one test and puts the old one back, even when the test fails.
class LogLevel {
  public:
    explicit LogLevel(int32_t level) : saved(debugLevel.load()) { debugLevel.store(level); }
    ~LogLevel() { debugLevel.store(saved); }

  private:
    int32_t saved;
};

bool sameRecord(const GpioRequest& r, uint32_t bank, uint32_t pin, uint32_t value) {
    return r.bank == bank && r.pin == pin && r.value == value && r.reserved == 0;
}

class GpioAdapter : public ::testing::Test {
  protected:
    void SetUp() override { fake().reset(); }
    void TearDown() override { fake().reset(); }

    // Checks one open / pinmux / second request / close cycle on a single descriptor.
    static void expectCycle(const std::vector<Event>& events, size_t at, unsigned long second,
                            uint32_t bank, uint32_t pin, uint32_t value) {
        ASSERT_GE(events.size(), at + 4);
        EXPECT_EQ(events[at].call, Call::Open);
        EXPECT_EQ(events[at].flags & O_ACCMODE, O_RDWR);
        const int fd = events[at].fd;
        EXPECT_EQ(events[at + 1].call, Call::Ioctl);
        EXPECT_EQ(events[at + 1].fd, fd);
        EXPECT_EQ(events[at + 1].code, GPIO_SET_PINMUX);
        EXPECT_TRUE(sameRecord(events[at + 1].request, bank, pin, 0));
        EXPECT_EQ(events[at + 2].call, Call::Ioctl);
        EXPECT_EQ(events[at + 2].fd, fd);
        EXPECT_EQ(events[at + 2].code, second);
        EXPECT_TRUE(sameRecord(events[at + 2].request, bank, pin, value));
        EXPECT_EQ(events[at + 3].call, Call::Close);
        EXPECT_EQ(events[at + 3].fd, fd);
    }
};

TEST_F(GpioAdapter, WritePinSelectsPinmuxThenDrivesThePin) {
    GpioAdpater gpio(kFakeNode);
    int32_t result = -1;
    EXPECT_EQ(captureStdout([&] { result = gpio.writePin(1, 5, 1); }), "");
    EXPECT_EQ(result, 0);
    auto events = fake().takeEvents();
    ASSERT_EQ(events.size(), 4u);
    expectCycle(events, 0, GPIO_WRITE_PIN, 1, 5, 1);

    fake().reset();
    EXPECT_EQ(gpio.writePin(255, 0, 0), 0);
    events = fake().takeEvents();
    ASSERT_EQ(events.size(), 4u);
    expectCycle(events, 0, GPIO_WRITE_PIN, 255, 0, 0);
}

TEST_F(GpioAdapter, WriteFailuresAddUpAndTheWriteIsStillIssued) {
    GpioAdpater gpio(kFakeNode);
    fake().failPinmux = true;
    int32_t result = 0;
    EXPECT_EQ(captureStdout([&] { result = gpio.writePin(3, 4, 1); }), "set  gpio  pinmux fail\n");
    EXPECT_EQ(result, -1);
    expectCycle(fake().takeEvents(), 0, GPIO_WRITE_PIN, 3, 4, 1);

    fake().reset();
    fake().failPinmux = true;
    fake().failWrite = true;
    EXPECT_EQ(captureStdout([&] { result = gpio.writePin(3, 4, 0); }), "set  gpio  pinmux fail\n");
    EXPECT_EQ(result, -2);

    fake().reset();
    fake().failWrite = true;
    EXPECT_EQ(captureStdout([&] { result = gpio.writePin(3, 4, 0); }), "");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(fake().takeEvents().back().call, Call::Close);
}

TEST_F(GpioAdapter, UnopenableNodeGivesMinusOneAndReleasesTheMutex) {
    GpioAdpater gpio(kFakeNode);
    fake().failOpen = true;
    const std::string message = std::string("open gpio node ") + kFakeNode + " failed\n";
    int32_t result = 0;
    EXPECT_EQ(captureStdout([&] { result = gpio.writePin(1, 2, 1); }), message);
    EXPECT_EQ(result, -1);
    uint8_t level = 0xAA;
    EXPECT_EQ(captureStdout([&] { result = gpio.readPin(1, 2, &level); }), message);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(level, 0xAA) << "the caller's byte stays untouched";
    const auto events = fake().takeEvents();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].call, Call::Open);
    EXPECT_EQ(events[1].call, Call::Open);

    // An open that yields descriptor 0 counts as failed too: nothing is issued on it or closed.
    fake().reset();
    fake().openReturnsZero = true;
    EXPECT_EQ(captureStdout([&] { result = gpio.writePin(1, 2, 1); }), message);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(fake().takeEvents().size(), 1u);

    // A mutex left locked would hang here.
    fake().reset();
    EXPECT_EQ(gpio.writePin(1, 2, 1), 0);
}

TEST_F(GpioAdapter, MissingRealNodeFailsWithItsPath) {
    const std::string path = "/nonexistent-s2e-gpio/other-node";
    GpioAdpater gpio(path.c_str());
    uint8_t level = 7;
    int32_t result = 0;
    EXPECT_EQ(captureStdout([&] { result = gpio.readPin(0, 0, &level); }),
              "open gpio node " + path + " failed\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(level, 7);
    EXPECT_TRUE(fake().takeEvents().empty()) << "only the fake node reaches the stand-in";
}

TEST_F(GpioAdapter, ReadPinReportsTheLevelAndLogsItAtInfo) {
    GpioAdpater gpio(kFakeNode);
    fake().level = 1;
    uint8_t level = 0;
    int32_t result = -1;
    {
        LogLevel info(LOG_INFO);
        EXPECT_EQ(captureStdout([&] { result = gpio.readPin(2, 3, &level); }), "gpio2_3=1\n");
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(level, 1);
    expectCycle(fake().takeEvents(), 0, GPIO_READ_PIN, 2, 3, 0);

    // At the default threshold the success line stays quiet; only the low byte reaches the caller.
    fake().reset();
    fake().level = 0x1FE;
    EXPECT_EQ(captureStdout([&] { result = gpio.readPin(2, 3, &level); }), "");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(level, 0xFE);
}

TEST_F(GpioAdapter, ReadFailuresAreLoggedAndSummed) {
    GpioAdpater gpio(kFakeNode);
    LogLevel info(LOG_INFO);
    uint8_t level = 0xAA;
    int32_t result = 0;

    fake().failRead = true;
    fake().level = 1;
    EXPECT_EQ(captureStdout([&] { result = gpio.readPin(4, 6, &level); }), "read gpio fail\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(level, 0) << "a failed read stores what the request held";
    EXPECT_EQ(fake().takeEvents().back().call, Call::Close);

    fake().reset();
    fake().failPinmux = true;
    fake().level = 1;
    EXPECT_EQ(captureStdout([&] { result = gpio.readPin(4, 6, &level); }),
              "set  gpio  pinmux fail\nread gpio fail\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(level, 1) << "the read itself still happened";
    expectCycle(fake().takeEvents(), 0, GPIO_READ_PIN, 4, 6, 0);

    fake().reset();
    fake().failPinmux = true;
    fake().failRead = true;
    EXPECT_EQ(captureStdout([&] { result = gpio.readPin(4, 6, &level); }),
              "set  gpio  pinmux fail\nread gpio fail\n");
    EXPECT_EQ(result, -2);
}

// Thread A's first pinmux request waits until another open arrives (or 300 ms pass) while thread B
// starts its own operation. With one adapter B must stay out until A has closed the node; with two
// adapters on the same node nothing keeps B out, which shows that the probe does see an overlap.
class GpioSerialisation : public GpioAdapter {
  protected:
    bool overlapWith(GpioAdpater& first, GpioAdpater& second) {
        fake().holdFirstPinmux = true;
        std::thread a([&] { first.writePin(1, 1, 1); });
        {
            // Bounded, so that a stand-in never reached fails the test instead of hanging it.
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
};

TEST_F(GpioSerialisation, OneAdapterRunsOneOperationAtATime) {
    GpioAdpater gpio(kFakeNode);
    EXPECT_FALSE(overlapWith(gpio, gpio));
    const auto events = fake().takeEvents();
    ASSERT_EQ(events.size(), 8u);
    expectCycle(events, 0, GPIO_WRITE_PIN, 1, 1, 1);
    expectCycle(events, 4, GPIO_READ_PIN, 2, 2, 0);
}

TEST_F(GpioSerialisation, TwoAdaptersOnOneNodeDoNotExcludeEachOther) {
    GpioAdpater first(kFakeNode);
    GpioAdpater second(kFakeNode);
    EXPECT_TRUE(overlapWith(first, second));
}

}  // namespace
