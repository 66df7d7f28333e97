// Locked general-purpose byte ring of the framework library: append, take back, and cut out
// delimited frames and head/tail messages, safe to call from any thread.
#pragma once

#include <pthread.h>

#include <cstdint>

// The library's signed byte of buffer interfaces.
typedef int8_t Int8;

class CircleBuffer {
  public:
    // Size codes 0..4 give 256, 1024, 2048, 4096 and 16384 bytes; any other code gives 256.
    explicit CircleBuffer(int32_t sizeCode);
    ~CircleBuffer();
    CircleBuffer(const CircleBuffer&) = delete;
    CircleBuffer& operator=(const CircleBuffer&) = delete;

    // 0 when stored; -1 when it does not fit, and then everything stored is dropped as well.
    int32_t insertData(const Int8* data, uint32_t length);
    // Takes everything; trgBuf must hold getDataSize() bytes (the capacity, to be safe).
    uint32_t getData(Int8* trgBuf);
    // Takes at most `length` bytes, oldest first.
    uint32_t takeData(Int8* trgBuf, uint32_t length);
    // Cuts out startByte .. endByte; the end byte stays stored so it may open the next frame.
    // Returns the frame length, 0 when there is no whole frame (then nothing is consumed).
    uint32_t getFrame(Int8* trgBuf, Int8 startByte, Int8 endByte);
    // Cuts out head .. tail (tail may be null); with `peek` nonzero only counts the bytes from the
    // head up to the write position (0 on a full ring whose head is the oldest byte) and consumes
    // nothing. Returns 0 when there is no message, or when the message fills the whole ring.
    uint32_t getMessage(Int8* trgBuf, const char* head, const char* tail, uint8_t peek);
    // Snapshots, stale as soon as they return.
    uint32_t getFreeSize();
    uint32_t getDataSize();
    int32_t clear();

  protected:
    Int8* _buf;
    uint32_t _size;
    uint32_t _dataLen;
    uint32_t _sizeNeg;
    uint32_t _readPos;
    uint32_t _writePos;
    pthread_mutex_t _mutex;

  private:
    uint32_t wrap(uint32_t position) const { return position & ~_sizeNeg; }
    uint8_t byteAt(uint32_t position) const { return static_cast<uint8_t>(_buf[wrap(position)]); }
    // Copies `count` stored bytes from `position` on, wrapping around the end of storage.
    void copyOut(uint32_t position, Int8* target, uint32_t count) const;
    // True when the `length` bytes stored from `position` on equal `pattern`.
    bool matchesAt(uint32_t position, const char* pattern, uint32_t length) const;
};
