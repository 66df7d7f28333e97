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
