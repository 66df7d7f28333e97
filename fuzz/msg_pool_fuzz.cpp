// libFuzzer target for MsgBufferPool: allocations, duplicates, frees, copies and protocol
// conversions in any order, checked against a model of the free list (first fit, freed buffers at
// the back, a new buffer of exactly the doubled size when none fits) and of every buffer's
// references, owner mask, layout and header.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <utility>
#include <vector>

#include "FuzzInput.h"
#include "MsgBufferPool.h"
#include "debug.h"

namespace {

template <typename T>
T at(const uint8_t* p) {
    T value;
    memcpy(&value, p, sizeof value);
    return value;
}

constexpr size_t kPdata = 50 + offsetof(S_ProtocolMsg, pdata);

// A free buffer as the free list holds it: a freed copy's handle (and so its entry) keeps the
// source's data size in a larger block.
struct Entry {
    uint8_t* block;  // null: not seen yet
    uint16_t dataSize, blockSize;
};

struct Model {
    std::list<Entry> freeList;
    std::map<uint8_t*, uint32_t> refs, owners;  // every block seen
    uint32_t total = 0;
};

// The header as allocMsgBuf writes it: type word, body length and body by type.
void checkHeader(const MsgBuf& b, uint16_t type) {
    CHECK(at<uint32_t>(b.header) == type);
    if (type < 2 || type > 7) return;
    CHECK(at<uint16_t>(b.header + 40) == (type == 2 ? 81 : type == 4 ? 262 : 76));
    CHECK(at<uint8_t*>(b.header + 42) == (type == 2 ? b.header + 50 : b.data));
    if (type == 2) CHECK(at<uint8_t*>(b.header + kPdata) == b.data);
}

// The buffer an allocation of `size` takes by the model (first fit, else a new one of exactly
// the doubled size); checks the block and returns the descriptor it comes with.
Entry expectAlloc(Model& m, uint16_t size, uint32_t owner, uint8_t* block) {
    const uint16_t wanted = static_cast<uint16_t>((size & 0x7FFFu) * 2);
    auto fit = m.freeList.begin();
    while (fit != m.freeList.end() && fit->dataSize < wanted) ++fit;
    Entry taken{block, wanted, uint16_t(wanted + 152)};
    if (fit == m.freeList.end()) {
        CHECK(m.refs.count(block) == 0);
        ++m.total;
    } else {
        CHECK(fit->block == nullptr ? m.refs.count(block) == 0 : block == fit->block);
        taken = *fit;
        m.freeList.erase(fit);
    }
    m.refs[block] = 1, m.owners[block] = owner;
    CHECK(at<uint32_t>(block) == 1);
    return taken;
}

void checkLayout(const MsgBuf& b, uint32_t owner) {
    CHECK(b.state == MSGBUF_USED && b.header == b.block + 4 && b.trailer == b.block + 132);
    CHECK(*b.owners == owner);
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    debugLevel = -1;  // the notes are expected here; keep the output quiet
    FuzzInput in{data, size};
    Model m;
    const uint16_t count = in.byte() % 8, initSize = in.byte() & 1 ? in.word() : 0;
    const bool refused = initSize > MSGBUF_MAX_DATA_SIZE;
    CHECK(MsgBufferPool::initPool(count, initSize) == (refused ? -1 : 0));
    CHECK(MsgBufferPool::initPool(0, 0) == 0);  // so that destroyPool releases what this input made
    for (uint16_t i = 0; i < (refused ? 0 : count); ++i, ++m.total)
        m.freeList.push_back({nullptr, uint16_t(initSize ? initSize : 1024),
                              uint16_t((initSize ? initSize : 1024) + 152)});
    std::vector<MsgBuf> held;  // handles holding a reference
    while (!in.empty()) {
        const uint8_t op = in.byte();
        const uint32_t owner = in.byte() & 0x1Fu;
        const size_t pick = held.empty() ? 0 : in.byte() % held.size();
        MsgBuf* h = held.empty() ? nullptr : &held[pick];
        int kind = h == nullptr ? 0 : op % 6;
        if (kind == 0 && held.size() >= 32) kind = 2;  // bounds the memory one input takes
        if (kind == 0) {
            // Sizes near 512 meet the default buffers of 1024 and each other exactly.
            const uint16_t type = in.byte() % 10;
            const uint16_t bytes = op & 8 ? in.word() : uint16_t(510 + op % 5);
            const MsgBuf b = MsgBufferPool::allocMsgBuf(type, bytes, owner);
            if ((bytes & 0x7FFFu) > MSGBUF_MAX_ALLOC_SIZE) {
                CHECK(b.state == MSGBUF_INVALID);
                continue;
            }
            const Entry e = expectAlloc(m, bytes, owner, b.block);
            CHECK(b.dataSize == e.dataSize && b.blockSize == e.blockSize);
            checkLayout(b, owner);
            CHECK(b.msgType == type && b.data == b.block + 152);
            checkHeader(b, type);
            held.push_back(b);
        } else if (kind == 1) {
            const MsgBuf d = MsgBufferPool::duplicate(*h, owner);
            CHECK(d.state == MSGBUF_USED && d.block == h->block);
            CHECK(at<uint32_t>(d.block) == ++m.refs[d.block]);
            CHECK(*d.owners == (m.owners[d.block] |= owner));
            held.push_back(d);
        } else if (kind == 2) {
            MsgBuf b = *h;
            held.erase(held.begin() + static_cast<long>(pick));
            b.data += op & 0x10;  // the last free puts the data pointer back
            CHECK(MsgBufferPool::freeMsgBuf(b, owner) == 0 && b.state == MSGBUF_FREE);
            CHECK(*b.owners == (m.owners[b.block] &= ~owner));
            CHECK(at<uint32_t>(b.block) == --m.refs[b.block]);
            if (m.refs[b.block] == 0) {
                CHECK(b.data == b.block + 152 && b.header == b.block + 4);
                m.freeList.push_back({b.block, b.dataSize, b.blockSize});
            }
            CHECK(MsgBufferPool::freeMsgBuf(b, owner) == -1);
            CHECK(MsgBufferPool::makeProtocolMsg(b) == -1);
            CHECK(MsgBufferPool::duplicate(b, 1).state == MSGBUF_INVALID);
            CHECK(MsgBufferPool::copyMsgBuf(b).state == MSGBUF_INVALID);
        } else if (kind == 3) {
            // A copy is a new allocation of the source's type and data size, with the content
            // copied and the header's pointers moved into the new block.
            const uint16_t room = h->dataSize < 200 ? h->dataSize : 200;
            for (uint16_t i = 0; i < room; ++i) h->data[i] = uint8_t(i * 7 + op);
            uint8_t* inside = h->data + in.byte() % (room + 1);
            if (h->msgType == 2) memcpy(h->header + kPdata, &inside, sizeof inside);
            h->userLen = in.word();
            const MsgBuf c = MsgBufferPool::copyMsgBuf(*h);
            if (h->dataSize > MSGBUF_MAX_ALLOC_SIZE) {
                CHECK(c.state == MSGBUF_INVALID);
                continue;
            }
            CHECK(c.blockSize == expectAlloc(m, h->dataSize, 0, c.block).blockSize);
            CHECK(c.msgType == h->msgType && c.dataSize == h->dataSize && c.userLen == h->userLen);
            CHECK(*c.owners == 0 && c.data == c.block + 152);
            CHECK(c.header == c.block + 4 && c.trailer == c.block + 132);
            CHECK(memcmp(c.header, h->header, 40) == 0 && memcmp(c.data, h->data, room) == 0);
            if (h->msgType == 2) {
                CHECK(at<uint8_t*>(c.header + 42) == c.header + 50);
                CHECK(at<uint8_t*>(c.header + kPdata) == c.block + (inside - h->block));
            } else if (h->msgType >= 3 && h->msgType <= 7) {
                CHECK(at<uint8_t*>(c.header + 42) == c.data);
            }
            held.push_back(c);
        } else if (kind == 4) {
            CHECK(MsgBufferPool::makeProtocolMsg(*h) == 0 && h->msgType == 2);
            CHECK(at<uint8_t*>(h->header + 42) == h->header + 50);
            CHECK(at<uint8_t*>(h->header + kPdata) == h->data);
        } else {
            const uint32_t inUse = (m.total - uint32_t(m.freeList.size())) % 256;
            CHECK(MsgBufferPool::poolUsagePercent() == (m.total ? inUse * 100 / m.total : 0));
        }
    }
    CHECK(MsgBufferPool::destroyPool() == 0);
    return 0;
}
