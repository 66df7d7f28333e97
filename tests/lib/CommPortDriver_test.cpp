// CommPortDriver failure paths and their messages, and dispatch through the three facets of the
// interface tree.
#include "CommPortDriver.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "DriverTestSupport.h"

namespace {

constexpr const char* kMissingNode = "/nonexistent-s2e-dir/tty-missing";

TEST(CommPortDriver, PortThatIsNotOpen) {
    Exposed<CommPortDriver> port(42);
    EXPECT_STREQ(port.getDeviceName(), "");
    // A failed open is silent here, but the port already carries the new name.
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(port.open(kMissingNode, O_RDWR), -1); }), "");
    EXPECT_EQ(port._fd, -1);
    EXPECT_EQ(port.portState, CommPortDriver::PORT_CLOSED);
    EXPECT_EQ(port.devicePath, kMissingNode);
    uint8_t byte = 0;
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(port.read(&byte, 1), -1); }), "_fd=-1 < 0 error!\n");
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(port.write(&byte, 1), -1); }), "");
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(port.close(), 0); }), "");
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(port.close(), 0); }), "");
    EXPECT_EQ(port.readCount, 0u);
}

TEST(CommPortDriver, FailedCloseKeepsTheDescriptor) {
    Exposed<CommPortDriver> port(1);
    ASSERT_EQ(port.open("/dev/null", O_RDONLY), 0);
    EXPECT_EQ(port.portState, CommPortDriver::PORT_OPENED);
    const int32_t fd = port._fd;
    ASSERT_EQ(::close(fd), 0);  // behind the port's back, so that close(2) fails
    EXPECT_EQ(port.close(), -1);
    EXPECT_EQ(port._fd, fd);
    EXPECT_EQ(port.portState, CommPortDriver::PORT_OPENED);
}

// writeData and readData go through the virtual write and read, so overrides are honoured.
class RecordingPort : public CommPortDriver {
  public:
    RecordingPort() : CommPortDriver(9) {}
    int32_t write(const uint8_t*, uint32_t length) override { return 1000 + int32_t(length); }
    int32_t read(uint8_t*, uint32_t length) override { return 2000 + int32_t(length); }
};

TEST(CommPortDriver, EachFacetReachesTheSameObject) {
    RecordingPort port;
    DeviceWriter* writer = &port;
    DeviceReader* reader = &port;
    DeviceController* controller = &port;
    DeviceDriver* roots[] = {writer, reader, controller};
    EXPECT_EQ(static_cast<void*>(writer), static_cast<void*>(&port)) << "writer is primary";
    EXPECT_NE(static_cast<void*>(roots[1]), static_cast<void*>(roots[2])) << "plain inheritance";
    EXPECT_EQ(roots[2]->open(kMissingNode, O_RDWR), -1);
    for (DeviceDriver* root : roots) {
        EXPECT_EQ(root->getDeviceId(), 9);
        EXPECT_STREQ(root->getDeviceName(), kMissingNode);
        EXPECT_EQ(root->close(), 0);
    }
    uint8_t buffer[4] = {};
    EXPECT_EQ(writer->writeData(buffer, 3), 1003);
    EXPECT_EQ(reader->readData(buffer, 4), 2004);
    EXPECT_EQ(controller->control(1, 0), -1);
    EXPECT_EQ(controller->resetDevice(), -1);
}

}  // namespace
