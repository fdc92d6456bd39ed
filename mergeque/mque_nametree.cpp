// The process-wide control block and its tree of queue names.
#include <cstring>

#include "mergeque/mque_internal.h"

extern "C" {

// Zero-filled static storage: the tree starts empty and initFlag 0.
ASORCH_API MergeQueGlbCb g_rixMergeQueGlbCb = {{nullptr, nullptr, nullptr},
                                               {nullptr, 0u},
                                               0u,
                                               PTHREAD_MUTEX_INITIALIZER,
                                               PTHREAD_MUTEX_INITIALIZER};

ASORCH_API int32_t RIX_MergeQueStrCompare(const void *name1, const void *name2)
{
    return static_cast<int32_t>(std::strcmp(static_cast<const char *>(name1), static_cast<const char *>(name2)));
}

ASORCH_API void RIX_MergeQueNameTreeInit(void)
{
    MergeQueGlbCb &g = g_rixMergeQueGlbCb;
    g.nameTreeInfo.compare = RIX_MergeQueStrCompare;
    g.nameTreeInfo.keyOffset = static_cast<uint32_t>(offsetof(MergeQueCb, name) - offsetof(MergeQueCb, treeNode));
    g.nameTree.root = nullptr;
    g.nameTree.first = nullptr;
    g.nameTree.last = nullptr;
}

ASORCH_API uint32_t RIX_MergeQueGlbInit(const char *name)
{
    MergeQueGlbCb &g = g_rixMergeQueGlbCb;
    if (pthread_mutex_lock(&g.glbInitMutex) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] %s glb init failed.", name);
        return ASORCH_ERR;
    }
    if (g.initFlag == 0u) {
        RIX_MergeQueNameTreeInit();
        g.initFlag = 1u;
    }
    (void)pthread_mutex_unlock(&g.glbInitMutex);
    return ASORCH_OK;
}

ASORCH_API MergeQueCb *RIX_MergeQueNameTreeFind(const char *name)
{
    MergeQueGlbCb &g = g_rixMergeQueGlbCb;
    if (name == nullptr) {
        return nullptr;
    }
    if (pthread_mutex_lock(&g.nameTreeMutex) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s mutex lock nameTreeMutex failed.", name);
        return nullptr;
    }
    void *node = ZUL_AVL3_Find(&g.nameTree, name, &g.nameTreeInfo);
    (void)pthread_mutex_unlock(&g.nameTreeMutex);
    return static_cast<MergeQueCb *>(node);
}

ASORCH_API uint32_t RIX_MergeQueNameTreeInsert(MergeQueCb *q)
{
    MergeQueGlbCb &g = g_rixMergeQueGlbCb;
    if (q == nullptr) {
        return ASORCH_ERR;
    }
    q->treeNode.parent = nullptr;
    q->treeNode.left = nullptr;
    q->treeNode.right = nullptr;
    q->treeNode.height = -1;
    if (pthread_mutex_lock(&g.nameTreeMutex) != 0) {
        return ASORCH_ERR;
    }
    const void *found = ZUL_AVL3_Insert_Or_Find(&g.nameTree, &q->treeNode, &g.nameTreeInfo);
    (void)pthread_mutex_unlock(&g.nameTreeMutex);
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s NameTreeInsert %s.", q->name, found == nullptr ? "Success" : "Fail");
    return found == nullptr ? ASORCH_OK : ASORCH_ERR;
}

ASORCH_API void RIX_MergeQueNameTreeDelete(const char *name)
{
    MergeQueGlbCb &g = g_rixMergeQueGlbCb;
    if (name == nullptr) {
        return;
    }
    if (pthread_mutex_lock(&g.nameTreeMutex) != 0) {
        return;
    }
    void *node = ZUL_AVL3_Find(&g.nameTree, name, &g.nameTreeInfo);
    if (node != nullptr) {
        ZUL_AVL3_Delete(&g.nameTree, static_cast<ZUL_AVL3_NODE *>(node));
    }
    (void)pthread_mutex_unlock(&g.nameTreeMutex);
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s NameTreeDelete.", name);
}

}  // extern "C"

namespace asorch::mque {

void NameTreeDeleteNode(MergeQueCb *q)
{
    MergeQueGlbCb &g = g_rixMergeQueGlbCb;
    if (pthread_mutex_lock(&g.nameTreeMutex) != 0) {
        return;
    }
    if (ZUL_AVL3_Find(&g.nameTree, q->name, &g.nameTreeInfo) == &q->treeNode) {
        ZUL_AVL3_Delete(&g.nameTree, &q->treeNode);
    }
    (void)pthread_mutex_unlock(&g.nameTreeMutex);
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s NameTreeDelete.", q->name);
}

}  // namespace asorch::mque
