// The tap's rings, socket and thread: records the bridge's threads copy in, merged in time order
// by the tap thread and sent to every attached reader without blocking.
#include "WireTap.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

static_assert(std::atomic<uint32_t>::is_always_lock_free, "the tap's indices are lock-free");

namespace {

// At a full line (57600 bytes/s) the serial reader's records take about 75 KB/s in the board's
// 56-byte chunks, but up to ten times that from a UART (or a pseudo-terminal) that hands over a
// byte or two per read: 128 KiB still holds a few hundred ms, tens of drains. The dispatcher
// records whole frames, the TAP reader only the frames it discards.
constexpr uint32_t kSerialReaderRingSize = 131072;
constexpr uint32_t kDispatcherRingSize = 65536;
constexpr uint32_t kTunReaderRingSize = 16384;
constexpr uint32_t kHead = sizeof(TapRecordHead);
constexpr uint32_t kGapRecord = kHead + sizeof(TapGap);
constexpr uint32_t kHelloBody = sizeof kTapMagic + sizeof kTapVersion;
// Bytes moved per drain at most, so that producers that never pause cannot keep it going.
constexpr uint32_t kDrainBudget = kSerialReaderRingSize + kDispatcherRingSize + kTunReaderRingSize;

int64_t realtimeNs() {
    // A vDSO call on both targets: no system call on the data path.
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

uint32_t putHead(uint8_t* out, TapKind kind, uint32_t length, int64_t timeNs) {
    const TapRecordHead head{static_cast<uint16_t>(kind), 0, length, timeNs};
    memcpy(out, &head, kHead);
    return kHead;
}

void addLost(TapGap* to, const TapGap& lost) {
    to->rxBytes += lost.rxBytes;
    to->txBytes += lost.txBytes;
    to->records += lost.records;
}

enum class Sent { kWhole, kNoRoom, kGone };

Sent sendRecords(int fd, const uint8_t* data, uint32_t length) {
    // Whole records per message, never waiting; MSG_NOSIGNAL: a reader that died is an error here.
    if (::send(fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL) == ssize_t(length))
        return Sent::kWhole;
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS ? Sent::kNoRoom
                                                                       : Sent::kGone;
}

}  // namespace

TapRing::TapRing(uint32_t size) : size_(size), storage_(new uint8_t[size]) {}

TapRing::~TapRing() {
    delete[] storage_;
}

void TapRing::store(uint32_t at, const void* data, uint32_t n) {
    const uint32_t pos = at & (size_ - 1);
    const uint32_t first = n < size_ - pos ? n : size_ - pos;
    memcpy(storage_ + pos, data, first);
    memcpy(storage_, static_cast<const uint8_t*>(data) + first, n - first);
}

void TapRing::load(uint32_t at, void* data, uint32_t n) const {
    const uint32_t pos = at & (size_ - 1);
    const uint32_t first = n < size_ - pos ? n : size_ - pos;
    memcpy(data, storage_ + pos, first);
    memcpy(static_cast<uint8_t*>(data) + first, storage_, n - first);
}

void TapRing::put(uint32_t session, TapKind kind, const uint8_t* body, uint32_t length) {
    if (session != session_) {
        session_ = session;
        lost_ = TapGap{};
    }
    if (length > kTapMaxBody) length = kTapMaxBody;  // the bridge's buffers are no longer
    const int64_t now = realtimeNs();
    // Own index, written only by this producer: relaxed.
    uint32_t at = writeIndex_.load(std::memory_order_relaxed);
    // Acquire: the tap thread has copied out every byte before readIndex, so they may be reused.
    const uint32_t room = size_ - (at - readIndex_.load(std::memory_order_acquire));
    const uint32_t gap = lost_.records != 0 ? kGapRecord : 0;
    if (gap + kHead + length > room) {
        (tapKindIsRx(kind) ? lost_.rxBytes : lost_.txBytes) += length;
        ++lost_.records;
        return;
    }
    uint8_t head[kHead];
    if (gap != 0) {
        store(at, head, putHead(head, TapKind::kGap, sizeof lost_, now));
        store(at + kHead, &lost_, sizeof lost_);
        at += kGapRecord;
        lost_ = TapGap{};
    }
    store(at, head, putHead(head, kind, length, now));
    store(at + kHead, body, length);
    // Release: the record's bytes are in place before the tap thread sees the index cover them.
    writeIndex_.store(at + kHead + length, std::memory_order_release);
}

bool TapRing::peek(TapRecordHead* head) const {
    // Own index, written only by the tap thread: relaxed.
    const uint32_t at = readIndex_.load(std::memory_order_relaxed);
    // Acquire: pairs with put's release, so the record's bytes are visible here and in take().
    if (writeIndex_.load(std::memory_order_acquire) == at) return false;
    load(at, head, kHead);
    return true;
}

uint32_t TapRing::take(uint8_t* out) {
    // Own index: relaxed. peek() has already acquired the record.
    const uint32_t at = readIndex_.load(std::memory_order_relaxed);
    TapRecordHead head;
    load(at, &head, kHead);
    const uint32_t n = kHead + head.length;
    load(at, out, n);
    // Release: the bytes are copied out before the producer may overwrite them.
    readIndex_.store(at + n, std::memory_order_release);
    return n;
}

void TapRing::clear() {
    // Acquire and release as in peek() and take(), for records skipped instead of copied.
    readIndex_.store(writeIndex_.load(std::memory_order_acquire), std::memory_order_release);
}

WireTap::WireTap()
    : serialReaderRing_(kSerialReaderRingSize),
      dispatcherRing_(kDispatcherRingSize),
      tunReaderRing_(kTunReaderRingSize),
      message_(new uint8_t[kMessageSize]) {}

// The bridge is never destroyed while its threads (this one among them) run.
WireTap::~WireTap() {
    delete[] message_;
}

bool WireTap::start(const char* directory, const char* socketPath) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (strlen(socketPath) >= sizeof addr.sun_path || strlen(directory) >= sizeof addr.sun_path)
        return false;
    strcpy(addr.sun_path, socketPath);
    // The directory's parent too (/run), where a root file system predates it (only /var/run);
    // the outcome shows in the next step.
    char parent[sizeof addr.sun_path];
    strcpy(parent, directory);
    if (char* slash = strrchr(parent, '/'); slash != nullptr && slash != parent) {
        *slash = '\0';
        (void)mkdir(parent, 0755);
    }
    if (mkdir(directory, 0700) != 0 && errno != EEXIST) return false;
    // A directory of this user's only, and only this user's to enter: the socket's one guard
    // before the reader's credentials.
    struct stat st {};
    if (lstat(directory, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid()) return false;
    if ((st.st_mode & 07777) != 0700 && chmod(directory, 0700) != 0) return false;

    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    (void)unlink(socketPath);  // left by a daemon that ended; a live one holds the interface
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        chmod(socketPath, 0600) != 0 || listen(fd, kTapMaxReaders) != 0) {
        close(fd);
        return false;
    }
    listenFd_ = fd;
    if (pthread_create(&thread_, nullptr, threadEntry, this) != 0) {
        close(fd);
        (void)unlink(socketPath);
        listenFd_ = -1;
        return false;
    }
    return true;
}

void* WireTap::threadEntry(void* self) {
    static_cast<WireTap*>(self)->serve();
    return nullptr;
}

void WireTap::serve() {
    for (;;) {
        polled_[0] = {listenFd_, POLLIN, 0};
        // Readers are asked for nothing: poll reports their hang-ups and errors all the same.
        for (uint32_t i = 0; i < readerCount_; ++i) polled_[1 + i] = {readers_[i].fd, 0, 0};
        const int ready = poll(polled_, 1 + readerCount_, readerCount_ == 0 ? -1 : kDrainMs);
        if (ready < 0) {
            if (errno != EINTR) (void)poll(nullptr, 0, kDrainMs);  // never spin on a failing poll
            continue;
        }
        // From the end: drop() moves the last reader into the freed place.
        for (uint32_t i = readerCount_; i-- > 0;) {
            if (polled_[1 + i].revents != 0) drop(i);
        }
        if (polled_[0].revents != 0) accept();
        if (readerCount_ > 0) drain();
    }
}

void WireTap::accept() {
    for (;;) {
        const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            // Out of descriptors, say: the connection stays queued; wait instead of spinning.
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != ECONNABORTED && errno != EINTR)
                (void)poll(nullptr, 0, kDrainMs);
            return;
        }
        ucred peer{};
        socklen_t length = sizeof peer;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != 0) {
            refuse(fd, "only root may attach");
            continue;
        }
        if (readerCount_ == kTapMaxReaders) {
            refuse(fd, "4 readers are attached already, the most the daemon serves");
            continue;
        }
        (void)shutdown(fd, SHUT_RD);  // the reader's sends fail: nothing of it reaches the bridge
        uint8_t hello[kHead + kHelloBody];
        putHead(hello, TapKind::kHello, kHelloBody, realtimeNs());
        memcpy(hello + kHead, kTapMagic, sizeof kTapMagic);
        memcpy(hello + kHead + sizeof kTapMagic, &kTapVersion, sizeof kTapVersion);
        if (sendRecords(fd, hello, sizeof hello) != Sent::kWhole) {
            close(fd);
            continue;
        }
        if (readerCount_ == 0) {
            // What the producers left when the last reader went belongs to nobody now. (A record
            // a producer was making as that reader went may still come: a moment older, no harm.)
            serialReaderRing_.clear();
            dispatcherRing_.clear();
            tunReaderRing_.clear();
            lastSession_ = lastSession_ + 1 == 0 ? 1 : lastSession_ + 1;
            // Relaxed: producers only test it; the rings' indices order what they record.
            session_.store(lastSession_, std::memory_order_relaxed);
        }
        readers_[readerCount_++] = Reader{fd, TapGap{}};
    }
}

void WireTap::refuse(int fd, const char* text) {
    uint8_t message[kHead + kHelloBody + kHead + 128];
    const uint32_t length = static_cast<uint32_t>(strnlen(text, 128));
    const int64_t now = realtimeNs();
    uint32_t at = putHead(message, TapKind::kHello, kHelloBody, now);
    memcpy(message + at, kTapMagic, sizeof kTapMagic);
    memcpy(message + at + sizeof kTapMagic, &kTapVersion, sizeof kTapVersion);
    at += kHelloBody;
    at += putHead(message + at, TapKind::kRefused, length, now);
    memcpy(message + at, text, length);
    (void)sendRecords(fd, message, at + length);
    close(fd);
}

void WireTap::drop(uint32_t index) {
    close(readers_[index].fd);
    readers_[index] = readers_[--readerCount_];
    // Relaxed, as in accept(): the producers stop recording at their next chunk.
    if (readerCount_ == 0) session_.store(0, std::memory_order_relaxed);
}

void WireTap::drain() {
    TapRing* const rings[] = {&serialReaderRing_, &dispatcherRing_, &tunReaderRing_};
    TapGap inMessage{};  // what the message holds, for the readers that cannot take it
    int64_t firstNs = 0;
    for (uint32_t moved = 0; moved < kDrainBudget && readerCount_ > 0;) {
        // The oldest record first, so that the stream stays in time order across the threads.
        TapRing* next = nullptr;
        TapRecordHead head{}, candidate{};
        for (TapRing* ring : rings) {
            if (ring->peek(&candidate) && (next == nullptr || candidate.timeNs < head.timeNs)) {
                next = ring;
                head = candidate;
            }
        }
        if (next == nullptr) break;
        if (messageLength_ > 0 && messageLength_ + kHead + head.length > kMessageSize) {
            send(inMessage, firstNs);
            inMessage = TapGap{};
        }
        if (messageLength_ == 0) firstNs = head.timeNs;
        const uint32_t n = next->take(message_ + messageLength_);
        if (static_cast<TapKind>(head.kind) == TapKind::kGap) {
            TapGap gap;
            memcpy(&gap, message_ + messageLength_ + kHead, sizeof gap);
            addLost(&inMessage, gap);
        } else {
            addLost(&inMessage, tapKindIsRx(static_cast<TapKind>(head.kind))
                                    ? TapGap{head.length, 0, 1}
                                    : TapGap{0, head.length, 1});
        }
        messageLength_ += n;
        moved += n;
    }
    if (messageLength_ > 0) send(inMessage, firstNs);
}

void WireTap::send(const TapGap& inMessage, int64_t firstNs) {
    for (uint32_t i = readerCount_; i-- > 0;) {
        Reader& reader = readers_[i];
        if (reader.lost.records != 0) {
            // Stamped as the first record after the loss, so the stream stays in time order.
            uint8_t gap[kGapRecord];
            putHead(gap, TapKind::kGap, sizeof reader.lost, firstNs);
            memcpy(gap + kHead, &reader.lost, sizeof reader.lost);
            const Sent sent = sendRecords(reader.fd, gap, kGapRecord);
            if (sent == Sent::kGone) {
                drop(i);
                continue;
            }
            if (sent == Sent::kNoRoom) {
                addLost(&reader.lost, inMessage);
                continue;
            }
            reader.lost = TapGap{};
        }
        const Sent sent = sendRecords(reader.fd, message_, messageLength_);
        if (sent == Sent::kGone) drop(i);
        if (sent == Sent::kNoRoom) addLost(&reader.lost, inMessage);
    }
    messageLength_ = 0;
}
