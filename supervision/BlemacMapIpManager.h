// Read-only view of the small key-to-value table that another process keeps in System V shared
// memory (key 0x400009): eight 32-bit key/value pairs, looked up by key.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// Byte layout of the shared segment, little-endian; slot i pairs keys[i] with values[i], key 0 is
// an empty slot. The two leading words belong to the owning process and are never read here.
struct BlemacMapTable {
    uint32_t reserved[2];
    uint32_t values[8];
    uint32_t keys[8];
};
static_assert(sizeof(BlemacMapTable) == 72, "map table segment is 72 bytes");
static_assert(offsetof(BlemacMapTable, values) == 8, "values start at byte 8");
static_assert(offsetof(BlemacMapTable, keys) == 40, "keys start at byte 40");

constexpr key_t kMapTableShmKey = 0x400009;
constexpr size_t kMapTableSize = sizeof(BlemacMapTable);
constexpr uint32_t kMapLookupMiss = 0xFFFFFFFFu;

class BlemacMapIpManager {
  public:
    // The single manager, created and attached on the first call. No lock: the first call comes
    // from main before any other thread exists.
    static BlemacMapIpManager* instance();

    // Gets and attaches the segment, creating it (all zero) if absent.
    BlemacMapIpManager();
    // Releases the object only; the segment stays attached for the life of the process.
    virtual ~BlemacMapIpManager();
    BlemacMapIpManager(const BlemacMapIpManager&) = delete;
    BlemacMapIpManager& operator=(const BlemacMapIpManager&) = delete;

    // Gets and attaches the segment again, replacing shmId and table; an earlier attachment stays
    // mapped. Returns the new attachment, or nullptr when the segment could not be had (reported).
    const BlemacMapTable* attach();

    // Value of the first slot holding key, or 0xFFFFFFFF for key 0, a missing key or no table.
    uint32_t lookup(uint32_t key) const;

  private:
    const BlemacMapTable* table;
    int32_t shmId;
};
