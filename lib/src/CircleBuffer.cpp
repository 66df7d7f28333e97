// CircleBuffer: a power-of-two byte ring with a separate byte count, so it can be filled
// completely; every operation runs under the buffer's own mutex.
#include "CircleBuffer.h"

#include <cstring>

#include "ThreadLocker.h"
#include "debug.h"

namespace {
constexpr uint32_t kCapacities[] = {256, 1024, 2048, 4096, 16384};
constexpr uint32_t kMessageDelimiterLimit = 40;

uint32_t capacityFor(int32_t sizeCode) {
    if (sizeCode < 0 || sizeCode >= static_cast<int32_t>(sizeof kCapacities / sizeof *kCapacities))
        return kCapacities[0];  // never a zero-sized ring, and never more memory than asked for
    return kCapacities[sizeCode];
}

// Holds the buffer's mutex for one operation.
class Hold {
  public:
    explicit Hold(pthread_mutex_t* mutex) : mutex_(mutex) { mutexLock(mutex_); }
    ~Hold() { mutexUnlock(mutex_); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

  private:
    pthread_mutex_t* mutex_;
};
}  // namespace

CircleBuffer::CircleBuffer(int32_t sizeCode)
    : _buf(nullptr), _size(0), _dataLen(0), _sizeNeg(0), _readPos(0), _writePos(0) {
    mutexInit(&_mutex, 1);
    _size = capacityFor(sizeCode);
    _sizeNeg = 0u - _size;
    try {
        _buf = new Int8[_size];
    } catch (...) {
        mutexDestroy(&_mutex);
        throw;
    }
}

CircleBuffer::~CircleBuffer() {
    delete[] _buf;
    mutexDestroy(&_mutex);
}

void CircleBuffer::copyOut(uint32_t position, Int8* target, uint32_t count) const {
    const uint32_t start = wrap(position);
    const uint32_t first = count < _size - start ? count : _size - start;
    memcpy(target, _buf + start, first);
    memcpy(target + first, _buf, count - first);
}

bool CircleBuffer::matchesAt(uint32_t position, const char* pattern, uint32_t length) const {
    for (uint32_t i = 0; i < length; ++i) {
        if (byteAt(position + i) != static_cast<uint8_t>(pattern[i])) return false;
    }
    return true;
}

int32_t CircleBuffer::insertData(const Int8* data, uint32_t length) {
    Hold hold(&_mutex);
    if (length > _size || length > _size - _dataLen) {
        if (length > _size) {
            debugLog(LOG_ERROR,
                     "ERR: CircleBuffer::insertData: insert data size is larger than buffer "
                     "size!\n");
        } else {
            debugLog(LOG_ERROR,
                     "ERR: CircleBuffer::insertData: circle buffer free memory not enough!");
        }
        _dataLen = 0;
        _readPos = 0;
        _writePos = 0;
        return -1;
    }
    const uint32_t first = length < _size - _writePos ? length : _size - _writePos;
    memcpy(_buf + _writePos, data, first);
    memcpy(_buf, data + first, length - first);
    _writePos = wrap(_writePos + length);
    _dataLen += length;
    return 0;
}

uint32_t CircleBuffer::getData(Int8* trgBuf) {
    Hold hold(&_mutex);
    const uint32_t count = _dataLen;
    copyOut(_readPos, trgBuf, count);
    _readPos = wrap(_readPos + count);
    _dataLen = 0;
    if (_writePos != _readPos) {
        debugLog(LOG_ERROR, "ERR: CircleBuffer::getData(Int8* trgBuf): something is wrong!\n");
    }
    return count;
}

uint32_t CircleBuffer::takeData(Int8* trgBuf, uint32_t length) {
    Hold hold(&_mutex);
    if (_dataLen == 0 || length == 0) return 0;
    const uint32_t count = length < _dataLen ? length : _dataLen;
    copyOut(_readPos, trgBuf, count);
    _readPos = wrap(_readPos + count);
    _dataLen -= count;
    return count;
}

uint32_t CircleBuffer::getFrame(Int8* trgBuf, Int8 startByte, Int8 endByte) {
    Hold hold(&_mutex);
    const uint8_t start = static_cast<uint8_t>(startByte);
    const uint8_t end = static_cast<uint8_t>(endByte);
    if (_dataLen < 2) return 0;  // a start on the last stored byte cannot open a frame

    // A start byte counts only when the byte after it is not another start byte. Only positions
    // with a stored successor are examined: a start on the last stored byte opens no frame anyway,
    // and the byte behind it is not stored data.
    uint32_t startOffset = 0;
    while (startOffset + 1 < _dataLen && !(byteAt(_readPos + startOffset) == start &&
                                           byteAt(_readPos + startOffset + 1) != start)) {
        ++startOffset;
    }
    if (startOffset + 1 >= _dataLen) return 0;

    uint32_t endOffset = startOffset + 1;
    while (endOffset < _dataLen && byteAt(_readPos + endOffset) != end) ++endOffset;
    if (endOffset >= _dataLen) return 0;

    const uint32_t frameStart = wrap(_readPos + startOffset);
    const uint32_t length = endOffset - startOffset + 1;
    // Everything before the end byte goes; the end byte stays as the oldest stored byte.
    _readPos = wrap(_readPos + endOffset);
    _dataLen -= endOffset;
    // A frame as long as the whole ring wraps to length 0: consumed, but nothing delivered.
    if (length == _size) return 0;
    copyOut(frameStart, trgBuf, length);
    return length;
}

uint32_t CircleBuffer::getMessage(Int8* trgBuf, const char* head, const char* tail, uint8_t peek) {
    Hold hold(&_mutex);
    if (head == nullptr || head[0] == '\0') return 0;
    const size_t headLen = strlen(head);
    const size_t tailLen = tail != nullptr ? strlen(tail) : 0;
    if (headLen + tailLen > kMessageDelimiterLimit || headLen + tailLen > _dataLen) return 0;
    const uint32_t h = static_cast<uint32_t>(headLen);
    const uint32_t t = static_cast<uint32_t>(tailLen);

    uint32_t headOffset = 0;
    const uint32_t lastHeadOffset = _dataLen - (h + t);
    while (headOffset <= lastHeadOffset && !matchesAt(_readPos + headOffset, head, h)) {
        ++headOffset;
    }
    if (headOffset > lastHeadOffset) return 0;

    const uint32_t afterHead = headOffset + h;  // offsets are counted from _readPos
    const uint32_t remaining = _dataLen - afterHead;
    if (t > remaining) return 0;

    uint32_t messageEnd = afterHead;  // offset of the first byte after the message
    if (t > 0) {
        uint32_t tailOffset = 0;
        while (tailOffset <= remaining - t &&
               !matchesAt(_readPos + afterHead + tailOffset, tail, t)) {
            ++tailOffset;
        }
        if (tailOffset > remaining - t) return 0;
        messageEnd = afterHead + tailOffset + t;
    }

    const uint32_t messageStart = wrap(_readPos + headOffset);
    // Bytes from the head up to the write position. The positions cannot tell a full ring from an
    // empty one, so on a full ring whose head is the oldest byte this is 0, as callers expect.
    if (peek != 0) {
        return messageStart <= _writePos ? _writePos - messageStart
                                         : _size + _writePos - messageStart;
    }

    const uint32_t length = messageEnd - headOffset;
    _readPos = wrap(_readPos + messageEnd);
    _dataLen -= messageEnd;
    // A message as long as the whole ring wraps to length 0, as in getFrame: consumed, nothing
    // delivered.
    if (length == _size) return 0;
    // Exactly the message, head through tail: never a byte that was not consumed or not stored.
    copyOut(messageStart, trgBuf, length);
    return length;
}

uint32_t CircleBuffer::getFreeSize() {
    Hold hold(&_mutex);
    return _size - _dataLen;
}

uint32_t CircleBuffer::getDataSize() {
    Hold hold(&_mutex);
    return _dataLen;
}

int32_t CircleBuffer::clear() {
    Hold hold(&_mutex);
    memset(_buf, 0, _size);
    _dataLen = 0;
    _readPos = 0;
    _writePos = 0;
    return 0;
}
