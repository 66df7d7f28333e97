// The protocol layer's message record, embedded in type-2 pool buffers and dumped by the debug
// unit.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma pack(push, 1)
struct S_NPA {
    uint8_t npID;
    uint32_t stationNum;
    uint8_t deviceNum;
    uint16_t pkgNum;
    uint8_t control;
    uint8_t mcpID;
};
struct S_NPB {
    uint8_t npID;
    uint32_t srcStationNum;
    uint8_t srcDeviceNum;
    uint32_t destStationNum;
    uint8_t destDeviceNum;
    uint16_t pkgNum;
    uint8_t control;
    uint8_t mcpID;
};
struct S_NPC {
    uint8_t npID;
    uint8_t moduleNum;
    uint8_t moduleType;
    uint8_t mcpID;
};
// The low 4 bits of a protocol byte choose the address variant that follows it: 1 NPA, 2 NPB,
// 3 NPC, else none. Each variant sits at the start of a 32-byte area; the rest carries nothing.
struct S_ProtocolMsg {
    uint8_t pkgType;
    uint16_t srcDeviceID;
    uint8_t srcProtocol;
    union {
        S_NPA srcNPA;
        S_NPB srcNPB;
        S_NPC srcNPC;
        uint8_t srcAddr[32];
    };
    uint16_t destDeviceID;
    uint8_t destProtocol;
    union {
        S_NPA destNPA;
        S_NPB destNPB;
        S_NPC destNPC;
        uint8_t destAddr[32];
    };
    uint16_t pdataLen;
    uint8_t* pdata;
};
#pragma pack(pop)

static_assert(sizeof(S_ProtocolMsg) == 81, "S_ProtocolMsg is a packed 81-byte record");
static_assert(offsetof(S_ProtocolMsg, destDeviceID) == 36, "destination follows the source area");
static_assert(offsetof(S_ProtocolMsg, pdataLen) == 71, "pdataLen at offset 71");
// Callers fill the record by these names, and the dump prints in this order: every field pinned.
static_assert(offsetof(S_ProtocolMsg, srcDeviceID) == 1, "srcDeviceID at 1");
static_assert(offsetof(S_ProtocolMsg, srcProtocol) == 3, "srcProtocol at 3");
static_assert(offsetof(S_ProtocolMsg, srcNPA) == 4, "source address area at 4");
static_assert(offsetof(S_ProtocolMsg, destProtocol) == 38, "destProtocol at 38");
static_assert(offsetof(S_ProtocolMsg, destNPA) == 39, "destination address area at 39");
static_assert(offsetof(S_ProtocolMsg, pdata) == 73, "pdata at 73");
static_assert(offsetof(S_NPA, stationNum) == 1, "S_NPA stationNum at 1");
static_assert(offsetof(S_NPA, deviceNum) == 5, "S_NPA deviceNum at 5");
static_assert(offsetof(S_NPA, pkgNum) == 6, "S_NPA pkgNum at 6");
static_assert(offsetof(S_NPA, control) == 8, "S_NPA control at 8");
static_assert(offsetof(S_NPA, mcpID) == 9, "S_NPA mcpID at 9");
static_assert(offsetof(S_NPB, srcDeviceNum) == 5, "S_NPB srcDeviceNum at 5");
static_assert(offsetof(S_NPB, destStationNum) == 6, "S_NPB destStationNum at 6");
static_assert(offsetof(S_NPB, destDeviceNum) == 10, "S_NPB destDeviceNum at 10");
static_assert(offsetof(S_NPB, pkgNum) == 11, "S_NPB pkgNum at 11");
static_assert(offsetof(S_NPB, control) == 13, "S_NPB control at 13");
static_assert(offsetof(S_NPB, mcpID) == 14, "S_NPB mcpID at 14");
static_assert(offsetof(S_NPC, moduleNum) == 1, "S_NPC moduleNum at 1");
static_assert(offsetof(S_NPC, moduleType) == 2, "S_NPC moduleType at 2");
static_assert(offsetof(S_NPC, mcpID) == 3, "S_NPC mcpID at 3");
