// Descriptor handling of CommPortDriver on plain files, its failure paths and messages, and the
// dispatch through the three facets of the interface tree.
#include "CommPortDriver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>

#include "DriverTestSupport.h"
#include "Rs232Adapter.h"
#include "Rs485Adapter.h"

namespace {

using Port = Exposed<CommPortDriver>;

static_assert(std::is_abstract<DeviceDriver>::value && std::is_abstract<DeviceWriter>::value &&
                  std::is_abstract<DeviceReader>::value &&
                  std::is_abstract<DeviceController>::value,
              "the interfaces are never instantiated by themselves");
static_assert(std::has_virtual_destructor<DeviceDriver>::value, "owners delete through facets");

constexpr const char* kMissingNode = "/nonexistent-s2e-dir/tty-missing";

// A scratch file holding five known bytes, removed after each test.
class FilePort : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* dir = getenv("TMPDIR");
        path = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/s2e-port-XXXXXX";
        const int fd = mkstemp(&path[0]);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::write(fd, "hello", 5), 5);
        ::close(fd);
    }
    void TearDown() override { unlink(path.c_str()); }

    std::string path;
};

TEST_F(FilePort, FreshPortHasNoDeviceAndReportsItsId) {
    Port port(42);
    EXPECT_EQ(port.getDeviceId(), 42);
    EXPECT_STREQ(port.getDeviceName(), "");
    EXPECT_EQ(port._fd, -1);
    EXPECT_EQ(port.portState, CommPortDriver::PORT_CLOSED);
    EXPECT_EQ(port.readCount, 0u);

    char tag[CommPortDriver::kDeviceTagSize];
    std::memset(tag, 'x', sizeof tag);
    EXPECT_EQ(port.getDeviceTag(tag), 0);
    EXPECT_EQ(tag[0], '\0');
}

TEST_F(FilePort, NotOpenPortFailsReadWithMessageAndWriteSilently) {
    Port port(1);
    uint8_t buffer[8] = {};
    int32_t result = 0;
    EXPECT_EQ(captureStdout([&] { result = port.read(buffer, sizeof buffer); }),
              "_fd=-1 < 0 error!\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(captureStdout([&] { result = port.write(buffer, sizeof buffer); }), "");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(port.readCount, 0u);
}

TEST_F(FilePort, OpenOfMissingNodeFailsSilentlyButKeepsTheNewName) {
    Port port(1);
    ASSERT_EQ(port.open(path.c_str(), O_RDWR), 0);
    ASSERT_EQ(port.close(), 0);

    int32_t result = 0;
    EXPECT_EQ(captureStdout([&] { result = port.open(kMissingNode, O_RDWR); }), "");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(port._fd, -1);
    EXPECT_EQ(port.portState, CommPortDriver::PORT_CLOSED);
    EXPECT_STREQ(port.getDeviceName(), kMissingNode);
    EXPECT_EQ(port.devicePath, kMissingNode);
    EXPECT_EQ(port.openFlags, O_RDWR);
}

TEST_F(FilePort, OpenSetsStateNamesAndCloseOnExec) {
    Port port(1);
    ASSERT_EQ(port.open(path.c_str(), O_RDONLY), 0);
    EXPECT_GT(port._fd, 0);
    EXPECT_EQ(port.portState, CommPortDriver::PORT_OPENED);
    EXPECT_EQ(port.getDeviceName(), path);
    EXPECT_EQ(port.devicePath, path);
    EXPECT_EQ(port.openFlags, O_RDONLY);
    EXPECT_EQ(fcntl(port._fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    // The flags reach open(2) as given: this descriptor is read-only.
    const uint8_t byte = 0;
    EXPECT_EQ(port.write(&byte, 1), -1);
    EXPECT_EQ(port.close(), 0);
}

TEST_F(FilePort, ReadCountsOnlyReadsThatReturnedBytes) {
    Port port(1);
    ASSERT_EQ(port.open(path.c_str(), O_RDONLY), 0);
    uint8_t buffer[16] = {};
    EXPECT_EQ(port.read(buffer, 0), 0);
    EXPECT_EQ(port.readCount, 0u);
    EXPECT_EQ(port.read(buffer, sizeof buffer), 5);
    EXPECT_EQ(std::memcmp(buffer, "hello", 5), 0);
    EXPECT_EQ(port.readCount, 1u);
    EXPECT_EQ(port.readData(buffer, sizeof buffer), 0);  // end of file
    EXPECT_EQ(port.readCount, 1u);
    EXPECT_EQ(port.close(), 0);
}

TEST_F(FilePort, WriteReturnsTheAcceptedCount) {
    Port port(1);
    ASSERT_EQ(port.open(path.c_str(), O_WRONLY | O_APPEND), 0);
    const uint8_t bytes[] = {0x7E, 0x00, 0x5E};
    EXPECT_EQ(port.write(bytes, sizeof bytes), 3);
    EXPECT_EQ(port.writeData(bytes, 1), 1);
    EXPECT_EQ(port.close(), 0);

    char content[16] = {};
    const int fd = ::open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(::read(fd, content, sizeof content), 9);
    ::close(fd);
    EXPECT_EQ(std::memcmp(content, "hello\x7E\x00\x5E\x7E", 9), 0);
}

TEST_F(FilePort, CloseTwiceAndFailedCloseKeepsTheDescriptor) {
    Port port(1);
    ASSERT_EQ(port.open(path.c_str(), O_RDWR), 0);
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(port.close(), 0); }), "");
    EXPECT_EQ(port._fd, -1);
    EXPECT_EQ(port.portState, CommPortDriver::PORT_CLOSED);
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(port.close(), 0); }), "");

    // A descriptor closed behind the port's back makes close(2) fail: the port keeps it.
    ASSERT_EQ(port.open(path.c_str(), O_RDWR), 0);
    const int32_t fd = port._fd;
    ASSERT_EQ(::close(fd), 0);
    EXPECT_EQ(port.close(), -1);
    EXPECT_EQ(port._fd, fd);
    EXPECT_EQ(port.portState, CommPortDriver::PORT_OPENED);
    port._fd = -1;
    EXPECT_EQ(port.close(), 0);
}

TEST_F(FilePort, DestroyingAnOpenPortLeavesTheDescriptorOpen) {
    int32_t fd = -1;
    {
        Port port(1);
        ASSERT_EQ(port.open(path.c_str(), O_RDONLY), 0);
        fd = port._fd;
    }
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    ::close(fd);
}

TEST_F(FilePort, UnsupportedAndReservedOperationsOfEachClass) {
    CommPortDriver base(1);
    Rs232Adapter rs232(2);
    Rs485Adapter rs485(3);
    DeviceController* controllers[] = {&base, &rs232, &rs485};
    const int32_t reserved1[] = {-1, 0, 0};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(controllers[i]->reservedControl1(), reserved1[i]);
        EXPECT_EQ(controllers[i]->reservedControl2(), -1);
        EXPECT_EQ(controllers[i]->reservedControl3(), -1);
    }
    EXPECT_EQ(base.reservedPort1(), -1);
    EXPECT_EQ(base.reservedPort2(), -1);
    EXPECT_EQ(base.control(1, B115200), -1);
    EXPECT_EQ(base.resetDevice(), -1);
    EXPECT_EQ(static_cast<DeviceController&>(rs232).resetDevice(), -1);
}

// Every facet, and the DeviceDriver base under each of them, reaches the one object.
TEST_F(FilePort, EachFacetReachesTheSameObject) {
    Port port(9);
    DeviceWriter* writer = &port;
    DeviceReader* reader = &port;
    DeviceController* controller = &port;
    DeviceDriver* viaWriter = writer;
    DeviceDriver* viaReader = reader;
    DeviceDriver* viaController = controller;

    // Three distinct root parts (plain inheritance), the writer's at the object's own address.
    EXPECT_EQ(static_cast<void*>(writer), static_cast<void*>(&port));
    EXPECT_NE(static_cast<void*>(viaWriter), static_cast<void*>(viaReader));
    EXPECT_NE(static_cast<void*>(viaReader), static_cast<void*>(viaController));

    ASSERT_EQ(viaReader->open(path.c_str(), O_RDWR), 0);
    EXPECT_EQ(port.portState, CommPortDriver::PORT_OPENED);
    for (DeviceDriver* driver : {viaWriter, viaReader, viaController}) {
        EXPECT_EQ(driver->getDeviceId(), 9);
        EXPECT_EQ(driver->getDeviceName(), path);
    }
    uint8_t buffer[8] = {};
    EXPECT_EQ(reader->readData(buffer, 2), 2);
    EXPECT_EQ(reader->read(buffer + 2, 3), 3);
    EXPECT_EQ(std::memcmp(buffer, "hello", 5), 0);
    EXPECT_EQ(port.readCount, 2u);
    EXPECT_EQ(writer->write(buffer, 1), 1);
    EXPECT_EQ(controller->control(2, 0), -1);
    EXPECT_EQ(viaController->close(), 0);
    EXPECT_EQ(port._fd, -1);
    EXPECT_EQ(viaWriter->close(), 0);
}

// A driver that overrides write and read, to see that the Data forms honour overrides.
class RecordingPort : public CommPortDriver {
  public:
    explicit RecordingPort(bool* destroyed) : CommPortDriver(5), destroyed(destroyed) {}
    ~RecordingPort() override { *destroyed = true; }
    int32_t write(const uint8_t*, uint32_t length) override {
        lastWrite = length;
        return 1000 + static_cast<int32_t>(length);
    }
    int32_t read(uint8_t*, uint32_t length) override {
        lastRead = length;
        return 2000 + static_cast<int32_t>(length);
    }

    uint32_t lastWrite = 0;
    uint32_t lastRead = 0;

  private:
    bool* destroyed;
};

TEST(DriverOverrides, DataFormsReachOverridesAndFacetDeleteReachesSubclass) {
    bool destroyed = false;
    auto* port = new RecordingPort(&destroyed);
    uint8_t buffer[4] = {};
    EXPECT_EQ(static_cast<DeviceWriter*>(port)->writeData(buffer, 3), 1003);
    EXPECT_EQ(port->lastWrite, 3u);
    EXPECT_EQ(static_cast<DeviceReader*>(port)->readData(buffer, 4), 2004);
    EXPECT_EQ(port->lastRead, 4u);

    std::unique_ptr<DeviceController> owner(port);
    owner.reset();
    EXPECT_TRUE(destroyed);

    // Deleting through the reader facet's root part runs the whole destructor chain as well.
    destroyed = false;
    DeviceDriver* root = static_cast<DeviceReader*>(new RecordingPort(&destroyed));
    delete root;
    EXPECT_TRUE(destroyed);
}

}  // namespace
