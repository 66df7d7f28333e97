// Shared map table: attach the segment read-only and look keys up in it.
#include "BlemacMapIpManager.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstdio>

BlemacMapIpManager* BlemacMapIpManager::instance() {
    static BlemacMapIpManager* single = nullptr;
    if (single == nullptr) single = new BlemacMapIpManager();
    return single;
}

BlemacMapIpManager::BlemacMapIpManager() : table(nullptr), shmId(-1) {
    attach();
}

BlemacMapIpManager::~BlemacMapIpManager() = default;

const BlemacMapTable* BlemacMapIpManager::attach() {
    shmId = shmget(kMapTableShmKey, kMapTableSize, IPC_CREAT | 0666);
    void* at = (shmId == -1) ? reinterpret_cast<void*>(-1) : shmat(shmId, nullptr, SHM_RDONLY);
    if (at == reinterpret_cast<void*>(-1)) {
        // Keep no pointer to a failed attachment: lookups then miss instead of faulting.
        table = nullptr;
        printf("BlemacMapIpManager: map table 0x%x not attached\n",
               static_cast<unsigned>(kMapTableShmKey));
        fflush(stdout);
        return nullptr;
    }
    table = static_cast<const BlemacMapTable*>(at);
    return table;
}

uint32_t BlemacMapIpManager::lookup(uint32_t key) const {
    if (key == 0 || table == nullptr) return kMapLookupMiss;
    // The owner may rewrite slots at any time; each word is read once with a single aligned load
    // (relaxed: a lookup orders nothing else).
    for (int i = 0; i < 8; ++i) {
        if (__atomic_load_n(&table->keys[i], __ATOMIC_RELAXED) == key) {
            return __atomic_load_n(&table->values[i], __ATOMIC_RELAXED);
        }
    }
    return kMapLookupMiss;
}
