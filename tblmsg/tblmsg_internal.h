// Table-message internals shared by the registry, message entry, parsing, dispatch and
// smoothing; not exported.
#ifndef RIX_AS_TBLMSG_INTERNAL_H
#define RIX_AS_TBLMSG_INTERNAL_H

#include "core/common.h"
#include "core/divisor.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rix_as_names.h"
#include "rix_as_merge.h"
#include "rix_as_orch.h"
#include "rix_as_tblmsg.h"

namespace asorch::tblmsg {

// Every registration list becomes one block: this header, then its nodes. The blocks of one
// registry are chained from the first so that the registry can be handed back whole.
struct alignas(alignof(uint64_t)) NodeBlock {  // nodes hold 64-bit words
    NodeBlock *first;
    NodeBlock *next;
};

template <class Ctrl>
struct Node {
    ASIntHashNode hashNode;  // link and key, as the hash expects
    Ctrl ctrl;
    NodeBlock *block;
    asorch::Divisor recSize;  // a recv record's size, prepared so a body's count needs no division
};

using RecvNode = Node<ASOrchTblMsgRecvCtrl>;
using TransNode = Node<ASOrchTblMsgTransCtrl>;

static_assert(offsetof(RecvNode, hashNode) == 0 && offsetof(TransNode, hashNode) == 0, "the hash link opens a node");
static_assert(alignof(NodeBlock) >= alignof(RecvNode) && alignof(NodeBlock) >= alignof(TransNode),
              "nodes follow the block header without padding");

// The node of a control record the registry handed out (never of one a caller made).
inline RecvNode *NodeOf(ASOrchTblMsgRecvCtrl *ctrl)
{
    return reinterpret_cast<RecvNode *>(reinterpret_cast<char *>(ctrl) - offsetof(RecvNode, ctrl));
}

// Message entry with the record size prepared at registration: the received road.
uint32_t DispatchRegistered(RecvNode *node, ASOrchMsg *msg, ASOrchHandle *handle);

// Wire words may sit at any alignment inside a body.
inline uint32_t LoadU32(const void *base, uint32_t offset)
{
    uint32_t v;
    __builtin_memcpy(&v, static_cast<const uint8_t *>(base) + offset, sizeof(v));
    return v;
}

struct TlvHeader {
    uint32_t tableId;
    uint32_t tlvType;
    uint32_t tlvLen;
};

inline TlvHeader LoadTlv(const ASOrchTransTlv *tlv)
{
    return TlvHeader{LoadU32(tlv, 0), LoadU32(tlv, 4), LoadU32(tlv, 8)};
}

inline const uint8_t *TlvValue(const ASOrchTransTlv *tlv)
{
    return reinterpret_cast<const uint8_t *>(tlv) + ASORCH_TLV_HDR_LEN;
}

}  // namespace asorch::tblmsg

#endif
