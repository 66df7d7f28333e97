// The daemon's live tap: what the bridge's threads read from and write to the UART, and what they
// discard, sent to readers attached to a local socket, without ever making those threads wait.
#pragma once

#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "TapFormat.h"

// Records of one producer thread for the tap thread: free-running indices (position = index AND
// mask), each written by one side only, so no lock; records are TapRecordHead and body, packed.
class TapRing {
  public:
    explicit TapRing(uint32_t size);  // a power of two, above the longest record; allocated now
    ~TapRing();
    TapRing(const TapRing&) = delete;
    TapRing& operator=(const TapRing&) = delete;

    // Producer thread only: appends the record whole, stamped now, or drops it and counts its
    // bytes, which go in as a gap record ahead of the next record that finds room. session is the
    // tap's (nonzero); a new one forgets what an earlier reader's session lost.
    void put(uint32_t session, TapKind kind, const uint8_t* body, uint32_t length);

    // Tap thread only. The next record's head (false when none is stored); then take() copies it,
    // head and body, to out (room for sizeof(TapRecordHead) + kTapMaxBody) and frees it.
    bool peek(TapRecordHead* head) const;
    uint32_t take(uint8_t* out);
    // Forgets every stored record (they belong to readers that have gone).
    void clear();

  private:
    void store(uint32_t at, const void* data, uint32_t n);
    void load(uint32_t at, void* data, uint32_t n) const;

    const uint32_t size_;
    uint8_t* const storage_;  // uninitialised: pages cost memory only once a reader attaches
    std::atomic<uint32_t> writeIndex_{0};  // written only by the producer
    std::atomic<uint32_t> readIndex_{0};   // written only by the tap thread
    // The producer's own, never read by the tap thread.
    uint32_t session_ = 0;
    TapGap lost_{};
};

// The fourth worker beside the bridge's three. It cannot delay them: they never wait for it,
// call into it or share a lock with it; with no reader attached they skip the tap after one
// relaxed load per chunk, and with readers they copy each chunk into their own TapRing, never
// waiting for room. The tap thread blocks in poll on the listening socket while nobody is
// attached (no timer), and while readers are attached drains the rings every kDrainMs and sends
// to each reader without blocking: a reader that does not keep up loses records, counted, and
// gets a gap record once its socket has room again. It never reads what a reader sends.
class WireTap {
  public:
    static constexpr int kDrainMs = 10;
    static constexpr uint32_t kMessageSize = 16384;  // bytes of whole records per send, at most

    WireTap();
    ~WireTap();
    WireTap(const WireTap&) = delete;
    WireTap& operator=(const WireTap&) = delete;

    // Makes the socket (directory mode 0700, socket 0600, a stale one replaced) and starts the tap
    // thread. False when either cannot be made: the bridge then runs without a tap. Called once.
    bool start(const char* directory, const char* socketPath);

    // The one call on the data path. Each kind comes from one thread only: kUartRx and
    // kSerialRingFull from the serial reader, kTunRingFull from the TAP reader, the others from
    // the dispatcher; each has its own ring.
    void record(TapKind kind, const uint8_t* body, uint32_t length) {
        // Relaxed: only tells whether to record; the ring's own indices order its bytes.
        const uint32_t session = session_.load(std::memory_order_relaxed);
        if (session == 0) return;
        ringOf(kind).put(session, kind, body, length);
    }

  private:
    struct Reader {
        int fd = -1;
        TapGap lost{};
    };

    TapRing& ringOf(TapKind kind) {
        if (kind == TapKind::kUartRx || kind == TapKind::kSerialRingFull) return serialReaderRing_;
        if (kind == TapKind::kTunRingFull) return tunReaderRing_;
        return dispatcherRing_;
    }
    static void* threadEntry(void* self);
    void serve();
    void accept();
    void refuse(int fd, const char* text);
    void drop(uint32_t index);
    void drain();
    // Sends the message to every reader; inMessage: what it holds, firstNs: its first record's
    // time.
    void send(const TapGap& inMessage, int64_t firstNs);

    TapRing serialReaderRing_;
    TapRing dispatcherRing_;
    TapRing tunReaderRing_;
    // Nonzero while a reader is attached: the number of the attachment that began with the first
    // reader, so that a producer can tell a new one. Written only by the tap thread.
    std::atomic<uint32_t> session_{0};
    uint32_t lastSession_ = 0;
    int listenFd_ = -1;
    Reader readers_[kTapMaxReaders];
    uint32_t readerCount_ = 0;
    pollfd polled_[1 + kTapMaxReaders] = {};
    uint8_t* const message_;  // kMessageSize bytes: the records being sent
    uint32_t messageLength_ = 0;
    pthread_t thread_{};
};
