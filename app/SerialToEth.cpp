// The bridge: TAP interface set-up, serial port start-up and the three worker threads that move
// frames between "uart2eth0" and the serial line without a lock or an allocation on the way.
#include "SerialToEth.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "FrameCodec.h"
#include "Rs232Adapter.h"
#include "debug.h"

namespace {

// Room for "ifconfig <15-char name> hw ether xx:xx:xx:xx:xx:xx" (51 bytes) and an address text
// of a reasonable length; a command that would not fit is not run rather than run truncated.
constexpr size_t kCommandSize = 128;

// Pause after a serial read that failed (port never opened, line hung up). Such a read fails at
// once, and the driver prints a line for each read on an unopened port, so without a pause the
// thread would spin a core and flood standard output. The pause doubles up to half a second: a dead
// port then costs two wake-ups (and two driver lines) per second, a passing failure a millisecond.
constexpr useconds_t kSerialRetryFirstMicros = 1000;
constexpr useconds_t kSerialRetryMaxMicros = 500000;

int32_t runCommand(const char* format, ...) __attribute__((format(printf, 1, 2)));

int32_t runCommand(const char* format, ...) {
    char command[kCommandSize];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(command, sizeof command, format, args);
    va_end(args);
    if (n < 0 || static_cast<size_t>(n) >= sizeof command) return -1;
    return system(command);
}

// Requests the scheduling that every worker thread gets after creation. The priority -20 is outside
// Linux's SCHED_RR range (1..99), so the kernel refuses it and the thread keeps the default
// policy; the readers raise themselves with nice(-20) instead. The refusal is ignored on purpose:
// a real-time policy on polling threads could starve the rest of the board.
void requestScheduling(pthread_t thread) {
    sched_param param{};
    param.sched_priority = -20;
    (void)pthread_setschedparam(thread, SCHED_RR, &param);
}

void raisePrecedence() {
    int result = nice(-20);
    (void)result;  // best effort: an unprivileged start keeps the default nice value
}

// The dispatcher's pass sleep while it has work, cut short by a reader's wake-up.
constexpr timespec kPassSleep = {0, 100 * 1000};

uint32_t threadHandleLow32() {
    return static_cast<uint32_t>(pthread_self());
}

}  // namespace

SerialToEth::SerialToEth()
    : tunFd(-1),
      port(nullptr),
      tunRing(new ByteRing()),
      serialRing(new ByteRing()),
      macAddr{},
      tunReaderThread(),
      serialReaderThread(),
      dispatcherThread(),
      tunRxBuf{},
      serialRxBuf{},
      tunTxBuf{},
      serialTxBuf{} {
    ringCreate(tunRing, kTunRingSize);
    ringCreate(serialRing, kSerialRingSize);
    port = new Rs232Adapter(1);
}

SerialToEth::~SerialToEth() {
    if (tunFd != -1) ::close(tunFd);
    port->close();
    ringDestroy(serialRing);
    delete serialRing;
    delete port;
    ringDestroy(tunRing);
    delete tunRing;
}

int32_t SerialToEth::tun_alloc(char* name, int32_t flags) {
    int fd = ::open("/dev/net/tun", O_RDWR);
    if (fd < 0) {
        printf("ERR: fail to open tun_alloc\r");
        fflush(stdout);
        return fd;
    }
    ifreq ifr{};
    ifr.ifr_flags = static_cast<short>(flags | IFF_NO_PI);
    // An empty name leaves the request's name zeroed, so the kernel picks one.
    if (name[0] != '\0') strncpy(ifr.ifr_name, name, IFNAMSIZ);
    if (ioctl(fd, TUNSETIFF, &ifr) < 0) {
        // Usually a DHCP client still holds the interface from an earlier run. Its outcome does
        // not matter (a void cast would not silence the fortified libc's unused-result warning):
        // the second attach tells whether the interface came free.
        int killed = system("killall udhcpc");
        (void)killed;
        if (ioctl(fd, TUNSETIFF, &ifr) < 0) {
            perror("TUNSETIFF");
            exit(0);
        }
    }
    strncpy(name, ifr.ifr_name, IFNAMSIZ);
    name[IFNAMSIZ - 1] = '\0';
    ifDown(name);
    return fd;
}

int32_t SerialToEth::ifUp(const char* name) {
    return runCommand("ifconfig %s up", name);
}

int32_t SerialToEth::ifDown(const char* name) {
    return runCommand("ifconfig %s down", name);
}

int32_t SerialToEth::setIp(const char* name, const char* address) {
    debugLog(LOG_ERROR, "Set interface ip is %s\n", address);
    return runCommand("ifconfig %s %s", name, address);
}

int32_t SerialToEth::setMac(const char* name, const uint8_t* mac) {
    debugLog(LOG_ERROR, "Set interface MAC %02x:%02x:%02x:%02x:%02x:%02x\n", mac[0], mac[1], mac[2],
             mac[3], mac[4], mac[5]);
    return runCommand("ifconfig %s hw ether %02x:%02x:%02x:%02x:%02x:%02x", name, mac[0], mac[1],
                      mac[2], mac[3], mac[4], mac[5]);
}

void SerialToEth::getMac(const char* name, uint8_t* out) {
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) {
        debugLog(LOG_ERROR, "ERR:creating socket failed(SerialToEth::getMac)\n");
        return;
    }
    ifreq ifr{};
    strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    if (ioctl(sock, SIOCGIFHWADDR, &ifr) == 0) {
        memcpy(out, ifr.ifr_hwaddr.sa_data, 6);
    } else {
        perror("ERR(SerialToEth::getMac)");
    }
    ::close(sock);
}

void SerialToEth::getIp(const char* name, char* out) {
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) {
        debugLog(LOG_ERROR, "ERR:creating socket failed(SerialToEth::getMac)\n");
        return;
    }
    ifreq ifr{};
    strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    if (ioctl(sock, SIOCGIFADDR, &ifr) == 0) {
        sockaddr_in addr;
        memcpy(&addr, &ifr.ifr_addr, sizeof addr);
        inet_ntop(AF_INET, &addr.sin_addr, out, INET_ADDRSTRLEN);
    } else {
        perror("ERR(SerialToEth::getMac)");
    }
    ::close(sock);
}

void SerialToEth::run() {
    printf("SerialToEth::run!\n");
    fflush(stdout);

    char name[IFNAMSIZ] = {};
    strncpy(name, kTunName, IFNAMSIZ - 1);
    tunFd = tun_alloc(name, IFF_TAP);
    ifUp(kTunName);
    getMac(kTunName, macAddr);

    if (port->open(kSerialNode, O_RDWR) == 0) {
        printf("Rs232 open ok\n");
    } else {
        printf("Rs232 open error\n");
    }
    port->control(1, 4102);  // command 1 = line speed; 4102 = 0x1006 = B576000
    printf("-->> >> >>-- uart0 baud rate is 576000 20220218!\n");
    fflush(stdout);

    if (pthread_create(&serialReaderThread, nullptr, serialSndThread, this) != 0) {
        debugLog(LOG_ERROR, "ERR:Failed to create thread \"serialSndThread\"\n");
        exit(0);
    }
    requestScheduling(serialReaderThread);
    if (pthread_create(&tunReaderThread, nullptr, rcvSerialThread, this) != 0) {
        debugLog(LOG_ERROR, "ERROR:Failed to create rcvSerialThread thread!\n");
        exit(0);
    }
    requestScheduling(tunReaderThread);
    if (pthread_create(&dispatcherThread, nullptr, circleDealThread, this) != 0) {
        debugLog(LOG_ERROR, "ERROR:Failed to create circleDealThread thread!\n");
        exit(0);
    }
    requestScheduling(dispatcherThread);
    // Last, once the bridge runs: without its socket the bridge runs as it would without a tap.
    (void)wireTap.start(kTapDirectory, kTapSocketPath);
}

void* SerialToEth::serialSndThread(void* arg) {
    if (arg == nullptr) {
        debugLog(LOG_ERROR, "ERR:parameter \"arg\" is null!\n");
        return nullptr;
    }
    auto* self = static_cast<SerialToEth*>(arg);
    debugLog(LOG_ERROR, "Thread: %-21s pid %u tid %u (0x%x)\n", "Serial1 Snd",
             static_cast<unsigned>(getpid()), threadHandleLow32(), threadHandleLow32());
    raisePrecedence();

    useconds_t retryPause = kSerialRetryFirstMicros;
    int32_t count = 0;
    for (;;) {
        // The buffer is all zero before every read: the constructor cleared it, and this clears
        // what the last read filled (a whole-buffer clear per read would cost more than the read).
        if (count > 0) memset(self->serialRxBuf, 0, static_cast<size_t>(count));
        // The blocking read paces this loop while the port works.
        count = self->port->read(self->serialRxBuf, kSerialReadSize);
        if (count <= 0) {
            usleep(retryPause);
            retryPause =
                retryPause * 2 > kSerialRetryMaxMicros ? kSerialRetryMaxMicros : retryPause * 2;
            continue;
        }
        retryPause = kSerialRetryFirstMicros;
        if (ringPutBytes(self->serialRing, self->serialRxBuf, static_cast<uint16_t>(count)) < 0) {
            debugLog(LOG_ERROR, "ERR:Discard %d bytes of data due to full Serial circle buffer!\n",
                     count);
            self->wireTap.record(TapKind::kSerialRingFull, self->serialRxBuf,
                                 static_cast<uint32_t>(count));
            continue;
        }
        if (DispatcherWake::serialChunkNeedsPass(self->serialRing, self->serialRxBuf,
                                                 static_cast<uint32_t>(count))) {
            self->dispatcherWake.wake();
        }
        self->wireTap.record(TapKind::kUartRx, self->serialRxBuf, static_cast<uint32_t>(count));
    }
    return nullptr;
}

void* SerialToEth::rcvSerialThread(void* arg) {
    if (arg == nullptr) {
        debugLog(LOG_ERROR, "ERR:parameter \"arg\" is null!\n");
        return nullptr;
    }
    auto* self = static_cast<SerialToEth*>(arg);
    debugLog(LOG_ERROR, "Thread:%-21s pid %u tid %u (0x%x)\n", "TUN RX",
             static_cast<unsigned>(getpid()), threadHandleLow32(), threadHandleLow32());
    raisePrecedence();

    for (;;) {
        // Whole buffer zeroed: ringPutFrame pads a short frame in place up to the minimum payload.
        memset(self->tunRxBuf, 0, sizeof self->tunRxBuf);
        ssize_t count = ::read(self->tunFd, self->tunRxBuf, kTunReadSize);
        if (count > 0) {
            if (ringPutFrame(self->tunRing, self->tunRxBuf, static_cast<uint16_t>(count)) < 0) {
                debugLog(LOG_ERROR, "ERR:Discard %d bytes of data due to full tun buffer!\n",
                         static_cast<int>(count));
                self->wireTap.record(TapKind::kTunRingFull, self->tunRxBuf,
                                     static_cast<uint32_t>(count));
            } else {
                self->dispatcherWake.wake();  // every stored frame can be sent
            }
        }
        usleep(kPollMicros);
    }
    return nullptr;
}

void* SerialToEth::circleDealThread(void* arg) {
    auto* self = static_cast<SerialToEth*>(arg);
    printf("circleDealThread startUp!\n");
    fflush(stdout);
    for (;;) {
        const uint32_t pass = self->dispatcherWake.passStart();
        bool more = self->sendFrameToSerial();
        more = self->sendPacketToTun() || more;
        // Work left: the next pass after the pass sleep, or sooner when a reader brings more.
        // Else nothing either ring holds can move until a reader stores more: no timer, no polling.
        self->dispatcherWake.sleep(pass, more ? &kPassSleep : nullptr);
    }
    return nullptr;
}

bool SerialToEth::sendFrameToSerial() {
    bool more = false;
    int32_t length =
        takeNextFrame(tunRing, serialTxBuf, sizeof serialTxBuf, kSerialFrameLimit, &more);
    if (length <= 0) return more;

    int32_t sent = 0;
    for (int attempt = 0; attempt < kSerialWriteAttempts; ++attempt) {
        int32_t n = port->write(serialTxBuf + sent, static_cast<uint32_t>(length - sent));
        if (n > 0) {
            wireTap.record(TapKind::kUartTx, serialTxBuf + sent, static_cast<uint32_t>(n));
            sent += n;
        }
        if (sent >= length) return more;
        usleep(kPollMicros);
    }
    debugLog(LOG_ERROR, "ERR:Fail to send data to Serial[%dbytes]\n", length - sent);
    wireTap.record(TapKind::kUartTxUnsent, serialTxBuf + sent,
                   static_cast<uint32_t>(length - sent));
    return more;
}

bool SerialToEth::sendPacketToTun() {
    bool more = false;
    int32_t length = takeNextPacket(serialRing, tunTxBuf, sizeof tunTxBuf, kTunPacketLimit, &more);
    if (length <= 0) return more;
    if (::write(tunFd, tunTxBuf, static_cast<size_t>(length)) != length) {
        debugLog(LOG_ERROR, "ERR:Failed to send data to Tun(%d)!\n", length);
        wireTap.record(TapKind::kTunWriteFailed, tunTxBuf, static_cast<uint32_t>(length));
    }
    return more;
}
