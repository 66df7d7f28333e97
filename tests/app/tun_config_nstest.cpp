// The bridge's interface handling on a real TAP device in a private network namespace: attach,
// state after attach, frames without a prefix, address round trips, and the busy-device exit.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "SerialToEth.h"

namespace {

short interfaceFlags(const char* name) {
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{};
    strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    short flags = ioctl(s, SIOCGIFFLAGS, &ifr) == 0 ? ifr.ifr_flags : -1;
    close(s);
    return flags;
}

// Runs `body` in a child with stdout and stderr captured; returns the exit status and the text.
template <class Body>
std::pair<int, std::string> inChild(Body body) {
    int p[2];
    if (pipe(p) != 0) return {-1, ""};
    pid_t pid = fork();
    if (pid == 0) {
        dup2(p[1], 1);
        dup2(p[1], 2);
        close(p[0]);
        body();
        fflush(stdout);
        _exit(99);
    }
    close(p[1]);
    std::string text;
    char buf[512];
    for (ssize_t n; (n = read(p[0], buf, sizeof buf)) > 0;)
        text.append(buf, static_cast<size_t>(n));
    close(p[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return {status, text};
}

class TunConfig : public ::testing::Test {
  protected:
    void TearDown() override {
        if (fd >= 0) close(fd);
        // Closing the descriptor removes the interface, asynchronously.
        for (int i = 0; i < 500 && if_nametoindex("uart2eth0") != 0; ++i) usleep(10000);
    }
    SerialToEth bridge;
    int fd = -1;
};

TEST_F(TunConfig, AttachLeavesTheInterfaceDownUntilUpAndFramesCarryNoPrefix) {
    char name[IFNAMSIZ] = "uart2eth0";
    fd = bridge.tun_alloc(name, IFF_TAP);
    ASSERT_GE(fd, 0);
    EXPECT_STREQ(name, "uart2eth0");
    short flags = interfaceFlags("uart2eth0");
    ASSERT_NE(flags, -1);
    EXPECT_EQ(flags & IFF_UP, 0);
    bridge.ifUp("uart2eth0");
    EXPECT_NE(interfaceFlags("uart2eth0") & IFF_UP, 0);

    // With an address, a datagram to a neighbour makes the kernel ask for its hardware address;
    // the read yields that broadcast frame starting at its destination address.
    bridge.setIp("uart2eth0", "10.77.0.1");
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    inet_pton(AF_INET, "10.77.0.2", &to.sin_addr);
    sendto(s, "x", 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    close(s);
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    uint8_t frame[2048];
    ssize_t n = read(fd, frame, sizeof frame);
    ASSERT_GE(n, 42);
    const uint8_t broadcast[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(memcmp(frame, broadcast, 6), 0);
    EXPECT_EQ(frame[12], 0x08);  // ARP
    EXPECT_EQ(frame[13], 0x06);

    bridge.ifDown("uart2eth0");
    EXPECT_EQ(interfaceFlags("uart2eth0") & IFF_UP, 0);
}

TEST_F(TunConfig, AddressesRoundTripAndAMissingInterfaceLeavesOutputsAlone) {
    char name[IFNAMSIZ] = "uart2eth0";
    fd = bridge.tun_alloc(name, IFF_TAP);
    ASSERT_GE(fd, 0);

    auto [status, text] = inChild([this] {
        bridge.setIp("uart2eth0", "10.77.0.9");
        const uint8_t mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
        bridge.setMac("uart2eth0", mac);
        fflush(stdout);
        _exit(0);
    });
    EXPECT_EQ(status, 0);
    EXPECT_NE(text.find("Set interface ip is 10.77.0.9\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Set interface MAC 02:11:22:33:44:55\n"), std::string::npos) << text;

    char ip[INET_ADDRSTRLEN] = "unset";
    bridge.getIp("uart2eth0", ip);
    EXPECT_STREQ(ip, "10.77.0.9");
    uint8_t mac[6] = {};
    bridge.getMac("uart2eth0", mac);
    const uint8_t want[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(memcmp(mac, want, 6), 0);

    auto [status2, text2] = inChild([this] {
        uint8_t out[6] = {1, 2, 3, 4, 5, 6};
        char addr[INET_ADDRSTRLEN] = "kept";
        bridge.getMac("nosuch0", out);
        bridge.getIp("nosuch0", addr);
        const uint8_t same[6] = {1, 2, 3, 4, 5, 6};
        fflush(stdout);
        _exit(memcmp(out, same, 6) == 0 && strcmp(addr, "kept") == 0 ? 0 : 1);
    });
    EXPECT_EQ(WEXITSTATUS(status2), 0) << "outputs changed for a missing interface";
    EXPECT_NE(text2.find("ERR(SerialToEth::getMac): No such device"), std::string::npos) << text2;
}

TEST_F(TunConfig, EmptyNameTakesTheKernelsChoice) {
    char name[IFNAMSIZ] = "";
    fd = bridge.tun_alloc(name, IFF_TAP);
    ASSERT_GE(fd, 0);
    EXPECT_STRNE(name, "");
    EXPECT_NE(if_nametoindex(name), 0u);
}

TEST_F(TunConfig, BusyInterfaceEndsTheProcessWithStatusZeroAfterTheSecondTry) {
    char name[IFNAMSIZ] = "uart2eth0";
    fd = bridge.tun_alloc(name, IFF_TAP);  // holds the single-queue device
    ASSERT_GE(fd, 0);
    auto [status, text] = inChild([this] {
        char again[IFNAMSIZ] = "uart2eth0";
        bridge.tun_alloc(again, IFF_TAP);
        _exit(7);  // not reached: the second failed attach ends the process
    });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(text.find("TUNSETIFF: Device or resource busy\n"), std::string::npos) << text;
}

}  // namespace
