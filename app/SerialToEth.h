// The bridge object: joins the TAP interface "uart2eth0" to the RS-232 line through two lock-free
// byte rings and three worker threads, plus the interface set-up helpers it uses at start.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <cstdint>

#include "ByteRing.h"
#include "CommPortDriver.h"
#include "DispatcherWake.h"
#include "WireTap.h"

class SerialToEth {
  public:
    static constexpr const char* kTunName = "uart2eth0";
    static constexpr const char* kSerialNode = "/dev/zynq_uart0";
    static constexpr int32_t kTunRingSize = 32768;
    static constexpr int32_t kSerialRingSize = 16384;
    static constexpr uint32_t kTunReadSize = 4096;
    static constexpr uint32_t kSerialReadSize = 4096;
    static constexpr uint16_t kSerialFrameLimit = 8172;
    static constexpr uint16_t kTunPacketLimit = 8192;
    static constexpr int kSerialWriteAttempts = 100;
    static constexpr useconds_t kPollMicros = 100;

    SerialToEth();
    virtual ~SerialToEth();
    SerialToEth(const SerialToEth&) = delete;
    SerialToEth& operator=(const SerialToEth&) = delete;

    // Start-up: TAP interface, serial port, worker threads, then the tap. Called once, by main.
    void run();

    // Interface handling. `name` is a 16-byte (IFNAMSIZ) buffer; tun_alloc writes back the name the
    // kernel chose. Each returns what its step returns (descriptor, or the result of system()).
    int32_t tun_alloc(char* name, int32_t flags);
    int32_t ifUp(const char* name);
    int32_t ifDown(const char* name);
    int32_t setIp(const char* name, const char* address);
    int32_t setMac(const char* name, const uint8_t* mac);
    void getMac(const char* name, uint8_t* out);
    // `out` must hold at least 16 bytes (INET_ADDRSTRLEN).
    void getIp(const char* name, char* out);

    // Thread entries; the argument is the bridge. They never return while the bridge is valid.
    static void* serialSndThread(void* arg);
    static void* rcvSerialThread(void* arg);
    static void* circleDealThread(void* arg);

    // One pass of the dispatcher, each way (called only by circleDealThread). Each returns whether
    // its ring may hold more that the next pass can take without new bytes.
    bool sendFrameToSerial();
    bool sendPacketToTun();

    int32_t tunDescriptor() const { return tunFd; }
    const uint8_t* hardwareAddress() const { return macAddr; }

  private:
    int32_t tunFd;
    CommPortDriver* port;
    ByteRing* tunRing;
    ByteRing* serialRing;
    uint8_t macAddr[6];
    pthread_t tunReaderThread;
    pthread_t serialReaderThread;
    pthread_t dispatcherThread;
    uint8_t tunRxBuf[8192];
    uint8_t serialRxBuf[4096];
    uint8_t tunTxBuf[8192];
    uint8_t serialTxBuf[8192];
    DispatcherWake dispatcherWake;
    WireTap wireTap;  // what the workers read, write and drop, for readers of its socket
};
