// Receive and transfer registries: two integer hashes filled once during base registration.
#include "core/int_hash.h"
#include "tblmsg/tblmsg_internal.h"

#include "rix_eal.h"
#include "rix_safe.h"

namespace asorch::tblmsg {
namespace {

constexpr uint32_t kLastQueuedMergeType = 3u;  // 0 to 3 go through a merge queue

template <class Ctrl>
NodeBlock *FirstBlock(ASIntHash *hash)
{
    for (uintptr_t i = 0; i < hash->bucketNum; ++i) {
        ASList *head = &hash->bucket[i];
        if (head->next != head) {
            return reinterpret_cast<Node<Ctrl> *>(head->next)->block->first;
        }
    }
    return nullptr;
}

// Nodes live in blocks chained from the first; any node leads to the chain.
template <class Ctrl>
void ReleaseRegistry(ASOrchHandle *handle, ASIntHash *hash)
{
    if (handle->memFree == nullptr) {
        ASIntHashDelete(hash);
        return;
    }
    NodeBlock *block = nullptr;
    asorch::ReleaseIntHash(hash, handle->memFree, [&block](ASIntHashNode *node) {
        if (block == nullptr) {
            block = reinterpret_cast<Node<Ctrl> *>(node)->block->first;
        }
    });
    while (block != nullptr) {
        NodeBlock *next = block->next;
        handle->memFree(block);
        block = next;
    }
}

// One block of count nodes behind its header, chained to the registry's earlier blocks.
template <class Ctrl>
Node<Ctrl> *NewNodeBlock(ASOrchHandle *handle, ASIntHash *hash, uint32_t count)
{
    const uint64_t size = sizeof(NodeBlock) + uint64_t{count} * sizeof(Node<Ctrl>);
    if (handle->memAlloc == nullptr || size > UINT32_MAX) {
        return nullptr;
    }
    auto *block = static_cast<NodeBlock *>(handle->memAlloc(static_cast<uint32_t>(size)));
    if (block == nullptr) {
        return nullptr;
    }
    NodeBlock *first = FirstBlock<Ctrl>(hash);
    block->next = nullptr;
    if (first == nullptr) {
        block->first = block;
    } else {
        block->first = first;
        NodeBlock *last = first;
        while (last->next != nullptr) {
            last = last->next;
        }
        last->next = block;
    }
    auto *nodes = reinterpret_cast<Node<Ctrl> *>(block + 1);
    for (uint32_t i = 0; i < count; ++i) {
        nodes[i].block = block;
    }
    return nodes;
}

static_assert(offsetof(ASOrchTblMsgRecvReg, keySize) == offsetof(ASOrchTblMsgRecvCtrl, keySize) &&
                  offsetof(ASOrchTblMsgRecvReg, userDefProc) == offsetof(ASOrchTblMsgRecvCtrl, userDefProc),
              "a recv element is the control record's head");
static_assert(offsetof(ASOrchTblMsgTransReg, tblMsgProc) == offsetof(ASOrchTblMsgTransCtrl, tblMsgProc),
              "a trans element is the control record's head");

struct RecvKind {
    using Ctrl = ASOrchTblMsgRecvCtrl;
    using Reg = ASOrchTblMsgRecvReg;
    static void **Field(ASOrchHandle *handle) { return &handle->tblMsgRecvHash; }
    static uint32_t Key(const Ctrl &c) { return c.msgId; }
    static void Complete(Node<Ctrl> &n, uint32_t)
    {
        n.ctrl.version = 0;
        n.recSize = asorch::MakeDivisor(n.ctrl.ipcSize);
    }
    // Accepted, as the registration has always been, but every message of it would fail or
    // every record be dropped: the module hears of it once, here.
    static void Warn(const ASOrchHandle *handle, const Ctrl &c)
    {
        if (c.ipcSize == 0u || (c.userDefProc == nullptr && c.keySize > c.ipcSize)) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                                "%s, recv msgId %u: record size %u, key size %u, its messages will be refused.",
                                handle->name, c.msgId, c.ipcSize, c.keySize);
        } else if (c.userDefProc == nullptr && c.mergeType <= kLastQueuedMergeType && c.keySize == 0u) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, recv msgId %u: key size is 0, its records cannot be merged.",
                                handle->name, c.msgId);
        }
    }
    static constexpr const char *kNoNode = "Orch auto sync recv tbl msg failed to new HashNode";
    static constexpr const char *kAddFail = "Orch autosync recv add HashNode(%u) fail";
};

struct TransKind {
    using Ctrl = ASOrchTblMsgTransCtrl;
    using Reg = ASOrchTblMsgTransReg;
    static void **Field(ASOrchHandle *handle) { return &handle->tblMsgTransHash; }
    static uint32_t Key(const Ctrl &c) { return c.tableId; }
    static void Complete(Node<Ctrl> &n, uint32_t isFes)
    {
        n.ctrl.isFes = isFes;
        n.ctrl.version = 0;
        n.recSize = asorch::MakeDivisor(0u);
    }
    static void Warn(const ASOrchHandle *, const Ctrl &) {}
    static constexpr const char *kNoNode = "Orch auto sync trans tbl msg failed to new HashNode";
    static constexpr const char *kAddFail = "Orch autosync trans add HashNode(%u) fail";
};

// The release walk reaches blocks only through hashed nodes: a block that opened the chain
// and had none of its nodes hashed is given back here, or nothing would ever find it.
template <class Ctrl>
uint32_t FillFailed(ASOrchHandle *handle, Node<Ctrl> *nodes, uint32_t hashed)
{
    NodeBlock *block = nodes[0].block;
    if (hashed == 0 && block->first == block && handle->memFree != nullptr) {
        handle->memFree(block);
    }
    return ASORCH_ERR;
}

template <class Kind>
uint32_t Fill(ASOrchHandle *handle, ASIntHash *hash, const ASOrchTblMsgList *list, uint32_t isFes)
{
    using Ctrl = typename Kind::Ctrl;
    using Reg = typename Kind::Reg;
    // A module element is the control record's leading fields.
    static_assert(sizeof(Reg) <= sizeof(Ctrl));
    Node<Ctrl> *nodes = NewNodeBlock<Ctrl>(handle, hash, list->count);
    if (nodes == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s", Kind::kNoNode);
        return ASORCH_ERR;
    }
    const auto *src = static_cast<const Reg *>(list->entries);
    for (uint32_t i = 0; i < list->count; ++i) {
        Node<Ctrl> &node = nodes[i];
        if (memset_s(&node.ctrl, sizeof(node.ctrl), 0, sizeof(node.ctrl)) != 0 ||
            memcpy_s(&node.ctrl, sizeof(node.ctrl), &src[i], sizeof(Reg)) != 0) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s", Kind::kNoNode);
            return FillFailed(handle, nodes, i);
        }
        Kind::Complete(node, isFes);
        Kind::Warn(handle, node.ctrl);
        node.hashNode.key = Kind::Key(node.ctrl);
        if (ASIntHashAdd(hash, &node.hashNode) != 0) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, Kind::kAddFail, node.hashNode.key);
            return FillFailed(handle, nodes, i);
        }
    }
    return ASORCH_OK;
}

template <class Kind>
uint32_t InitHash(ASOrchHandle *handle, const ASOrchTblMsgList *list, uint32_t isFes)
{
    void **field = Kind::Field(handle);
    if (*field == nullptr) {
        ASIntHash *created = ASIntHashCreate(ASORCH_TBLMSG_HASH_BUCKETS, handle->memAlloc);
        if (created == nullptr) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch auto sync creat new tblmsg hash Fail", handle->name);
            return ASORCH_ERR;
        }
        *field = created;
    }
    auto *hash = static_cast<ASIntHash *>(*field);
    if (Fill<Kind>(handle, hash, list, isFes) != 0) {
        ReleaseRegistry<typename Kind::Ctrl>(handle, hash);
        *field = nullptr;
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch auto sync creat tblmsg hash Fail", handle->name);
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}

uint32_t ListUsable(const ASOrchTblMsgList *list)
{
    return (list != nullptr && list->count != 0 && list->entries != nullptr) ? 1u : 0u;
}

}  // namespace
}  // namespace asorch::tblmsg

using namespace asorch::tblmsg;

extern "C" {

uint32_t ASOrchTblMsgRecvIsValid(const ASOrchTblMsgList *list)
{
    return ListUsable(list);
}

uint32_t ASOrchTblMsgTransIsExist(const ASOrchTblMsgList *list)
{
    return ListUsable(list);
}

uint32_t ASOrchFillTblMsgRecvHashTable(ASOrchHandle *handle, void *hash, const ASOrchTblMsgList *list)
{
    if (handle == nullptr || hash == nullptr || ListUsable(list) == 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s", RecvKind::kNoNode);
        return ASORCH_ERR;
    }
    return Fill<RecvKind>(handle, static_cast<ASIntHash *>(hash), list, 0);
}

uint32_t ASOrchFillTblMsgTransHashTable(ASOrchHandle *handle, void *hash, const ASOrchTblMsgList *list, uint32_t isFes)
{
    if (handle == nullptr || hash == nullptr || ListUsable(list) == 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s", TransKind::kNoNode);
        return ASORCH_ERR;
    }
    return Fill<TransKind>(handle, static_cast<ASIntHash *>(hash), list, isFes);
}

uint32_t ASOrchInitTblMsgRecvHash(ASOrchHandle *handle, const ASOrchTblMsgList *list)
{
    if (handle == nullptr || ListUsable(list) == 0) {
        return ASORCH_ERR;
    }
    return InitHash<RecvKind>(handle, list, 0);
}

uint32_t ASOrchInitTblMsgTransHash(ASOrchHandle *handle, const ASOrchTblMsgList *list, uint32_t isFes)
{
    if (handle == nullptr || ListUsable(list) == 0) {
        return ASORCH_ERR;
    }
    return InitHash<TransKind>(handle, list, isFes);
}

uint32_t ASOrchRegTblMsgRecv(ASOrchHandle *handle, ASOrchBasePara *para)
{
    for (const ASOrchTblMsgList &list : para->recvTblMsg) {
        if (ASOrchTblMsgRecvIsValid(&list) != 0 && ASOrchInitTblMsgRecvHash(handle, &list) != 0) {
            return ASORCH_ERR;
        }
    }
    return ASORCH_OK;
}

uint32_t ASOrchRegTblMsgTrans(ASOrchHandle *handle, ASOrchBasePara *para)
{
    for (uint32_t isFes = 0; isFes < 2; ++isFes) {
        const ASOrchTblMsgList &list = para->transTblMsg[isFes];
        if (ASOrchTblMsgTransIsExist(&list) != 0 && ASOrchInitTblMsgTransHash(handle, &list, isFes) != 0) {
            return ASORCH_ERR;
        }
    }
    return ASORCH_OK;
}

uint32_t ASOrchRegTblMsg(ASOrchHandle *handle, ASOrchBasePara *para)
{
    if (handle == nullptr || para == nullptr) {
        return ASORCH_ERR;
    }
    // Only the mb role serves table messages.
    if (RIX_EAL_SelfRoleIsMb(handle->ealHdl) == 0) {
        return ASORCH_OK;
    }
    if (ASOrchRegTblMsgRecv(handle, para) != 0) {
        return ASORCH_ERR;
    }
    return ASOrchRegTblMsgTrans(handle, para);
}

void *ASOrchGetTblMsgHashData(void *hash, const uint32_t *key)
{
    const uint32_t k = (key != nullptr) ? *key : 0u;
    if (hash == nullptr || key == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "hashTble is null, unknown key %u.", k);
        return nullptr;
    }
    ASIntHashNode *node = ASIntHashFind(static_cast<const ASIntHash *>(hash), key);
    if (node == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "OrchGetTblMsgCtrl from hash failed, unknown key %u.", k);
        return nullptr;
    }
    // Both node kinds place the control record right behind the hash link and key.
    static_assert(offsetof(RecvNode, ctrl) == offsetof(TransNode, ctrl), "control record at one offset");
    return &reinterpret_cast<RecvNode *>(node)->ctrl;
}

ASOrchTblMsgRecvCtrl *ASOrchGetTblMsgRecv(ASOrchHandle *handle, uint32_t msgId)
{
    void *hash = (handle != nullptr) ? handle->tblMsgRecvHash : nullptr;
    return static_cast<ASOrchTblMsgRecvCtrl *>(ASOrchGetTblMsgHashData(hash, &msgId));
}

ASOrchTblMsgTransCtrl *ASOrchGetTblMsgTrans(ASOrchHandle *handle, uint32_t tableId)
{
    void *hash = (handle != nullptr) ? handle->tblMsgTransHash : nullptr;
    return static_cast<ASOrchTblMsgTransCtrl *>(ASOrchGetTblMsgHashData(hash, &tableId));
}

void ASOrchFreeTblMsg(ASOrchHandle *handle)
{
    if (handle == nullptr) {
        return;
    }
    if (handle->tblMsgRecvHash != nullptr) {
        ReleaseRegistry<ASOrchTblMsgRecvCtrl>(handle, static_cast<ASIntHash *>(handle->tblMsgRecvHash));
        handle->tblMsgRecvHash = nullptr;
    }
    if (handle->tblMsgTransHash != nullptr) {
        ReleaseRegistry<ASOrchTblMsgTransCtrl>(handle, static_cast<ASIntHash *>(handle->tblMsgTransHash));
        handle->tblMsgTransHash = nullptr;
    }
}

uint32_t ASOrchReservePort(ASOrchHandle *handle, ASOrchBasePara *para)
{
    if (handle == nullptr || para == nullptr) {
        return ASORCH_ERR;
    }
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Orch auto sync Register reserver port.", handle->name);
    return RIX_EAL_ReservePort(handle->ealHdl, para->reservePort[0], para->reservePort[1]);
}

}  // extern "C"
