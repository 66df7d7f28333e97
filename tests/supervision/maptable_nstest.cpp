// Map table lookups against a real segment under key 0x400009 (fresh IPC namespace), written the
// way the owning process would, through its own read-write attachment.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstring>

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
        testing::internal::CaptureStdout();
        manager = new BlemacMapIpManager();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        int id = shmget(kMapTableShmKey, kMapTableSize, 0);
        ASSERT_NE(id, -1) << "the manager creates the segment";
        void* at = shmat(id, nullptr, 0);
        ASSERT_NE(at, reinterpret_cast<void*>(-1));
        owner = static_cast<BlemacMapTable*>(at);
    }
    void TearDown() override {
        delete manager;
        if (owner != nullptr) shmdt(owner);
        removeSegment();
    }

    BlemacMapIpManager* manager = nullptr;
    BlemacMapTable* owner = nullptr;
};

TEST_F(MapTable, FreshSegmentIsEmptyAndKeyZeroNeverMatches) {
    EXPECT_EQ(manager->lookup(0), kMapLookupMiss);
    EXPECT_EQ(manager->lookup(1), kMapLookupMiss);

    // An empty slot holds key 0; a value beside it must not come back for key 0.
    owner->values[0] = 1234;
    EXPECT_EQ(manager->lookup(0), kMapLookupMiss);
}

TEST_F(MapTable, LowerSlotWinsForDuplicateKeysAndChangesShowAtOnce) {
    owner->keys[2] = 0x0A000001;
    owner->values[2] = 22;
    owner->keys[5] = 0x0A000001;
    owner->values[5] = 55;
    EXPECT_EQ(manager->lookup(0x0A000001), 22u);

    owner->keys[2] = 0;  // the owner empties the lower slot
    EXPECT_EQ(manager->lookup(0x0A000001), 55u);
}

TEST_F(MapTable, LastSlotIsSearchedButTheLeadingWordsAreNot) {
    owner->keys[7] = 77;
    owner->values[7] = 7000;
    EXPECT_EQ(manager->lookup(77), 7000u);

    owner->reserved[0] = 99;
    owner->reserved[1] = 99;
    EXPECT_EQ(manager->lookup(99), kMapLookupMiss);
}

TEST_F(MapTable, ReattachSeesTheSameTableAndTheSingletonIsStable) {
    owner->keys[0] = 3;
    owner->values[0] = 30;
    const BlemacMapTable* again = manager->attach();
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(manager->lookup(3), 30u);

    BlemacMapIpManager* single = BlemacMapIpManager::instance();
    EXPECT_EQ(single, BlemacMapIpManager::instance());
    EXPECT_EQ(single->lookup(3), 30u);
}

TEST(MapTableUnattached, SegmentOfTheWrongSizeGivesMissesNotFaults) {
    removeSegment();
    // Another owner made the key with a size too small for the table: the get fails.
    int id = shmget(kMapTableShmKey, 16, IPC_CREAT | 0666);
    ASSERT_NE(id, -1);

    testing::internal::CaptureStdout();
    BlemacMapIpManager manager;
    std::string report = testing::internal::GetCapturedStdout();
    EXPECT_NE(report.find("not attached"), std::string::npos) << report;
    for (uint32_t key : {0u, 1u, 0xFFFFFFFFu}) EXPECT_EQ(manager.lookup(key), kMapLookupMiss);

    testing::internal::CaptureStdout();
    EXPECT_EQ(manager.attach(), nullptr);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(manager.lookup(1), kMapLookupMiss);
    shmctl(id, IPC_RMID, nullptr);
}

}  // namespace
