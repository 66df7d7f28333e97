// Map table lookups against a real segment under key 0x400009 (fresh IPC namespace), written the
// way the owning process would, through its own read-write attachment.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include "BlemacMapIpManager.h"

namespace {

void removeSegment() {
    int id = shmget(kMapTableShmKey, 0, 0);
    if (id != -1) shmctl(id, IPC_RMID, nullptr);
}

class MapTable : public ::testing::Test {
  protected:
    void SetUp() override {
        removeSegment();
        manager = new BlemacMapIpManager();  // creates the segment
        owner = static_cast<BlemacMapTable*>(shmat(shmget(kMapTableShmKey, 72, 0), nullptr, 0));
        ASSERT_NE(owner, reinterpret_cast<BlemacMapTable*>(-1));
    }
    void TearDown() override {
        delete manager;
        shmdt(owner);
        removeSegment();
    }
    BlemacMapIpManager* manager = nullptr;
    BlemacMapTable* owner = nullptr;
};

TEST_F(MapTable, KeyZeroNeverMatchesAndLowerSlotWinsForDuplicates) {
    EXPECT_EQ(manager->lookup(1), kMapLookupMiss);  // fresh segment: all slots empty
    owner->values[0] = 1234;                        // beside the empty slot's key 0
    EXPECT_EQ(manager->lookup(0), kMapLookupMiss);

    owner->keys[2] = owner->keys[5] = 0x0A000001;
    owner->values[2] = 22;
    owner->values[5] = 55;
    EXPECT_EQ(manager->lookup(0x0A000001), 22u);
    owner->keys[2] = 0;  // the owner empties the lower slot; seen without re-attaching
    EXPECT_EQ(manager->lookup(0x0A000001), 55u);
}

TEST_F(MapTable, LastSlotIsSearchedButTheLeadingWordsAreNot) {
    owner->keys[7] = 77;
    owner->values[7] = 7000;
    owner->reserved[0] = owner->reserved[1] = 99;
    EXPECT_EQ(manager->lookup(77), 7000u);
    EXPECT_EQ(manager->lookup(99), kMapLookupMiss);

    ASSERT_NE(manager->attach(), nullptr);
    EXPECT_EQ(manager->lookup(77), 7000u);
    EXPECT_EQ(BlemacMapIpManager::instance(), BlemacMapIpManager::instance());
    EXPECT_EQ(BlemacMapIpManager::instance()->lookup(77), 7000u);
}

TEST(MapTableUnattached, SegmentOfTheWrongSizeGivesMissesNotFaults) {
    removeSegment();
    // Another owner made the key with a size too small for the table: the get fails.
    int id = shmget(kMapTableShmKey, 16, IPC_CREAT | 0666);
    ASSERT_NE(id, -1);
    testing::internal::CaptureStdout();
    BlemacMapIpManager manager;
    EXPECT_EQ(manager.attach(), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "BlemacMapIpManager: map table 0x400009 not attached\n"
              "BlemacMapIpManager: map table 0x400009 not attached\n");
    for (uint32_t key : {0u, 1u, 0xFFFFFFFFu}) EXPECT_EQ(manager.lookup(key), kMapLookupMiss);
    shmctl(id, IPC_RMID, nullptr);
}

}  // namespace
