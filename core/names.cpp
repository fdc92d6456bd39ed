// Process-wide registry of live module names, and the name-joining utility.
#include <cstring>

#include "rix_as_names.h"
#include "rix_safe.h"

extern "C" {

ASORCH_API AutoSyncNameHead g_AutoSyncCtrlBlkNameHead = {0u, nullptr};

ASORCH_API uint32_t ASNameCreatCheckValid(const char *name, ASOrchMemAllocFunc memAlloc, ASOrchMemFreeFunc memFree)
{
    if (name == nullptr || memAlloc == nullptr || memFree == nullptr) {
        return 0u;
    }
    return strnlen(name, AUTOSYNC_NAME_NODE_NAME_SIZE) < AUTOSYNC_NAME_NODE_NAME_SIZE ? 1u : 0u;
}

ASORCH_API uint32_t AutoSyncNameExisted(const char *name)
{
    if (name == nullptr) {
        return 0u;
    }
    const AutoSyncNameNode *node = g_AutoSyncCtrlBlkNameHead.first;
    for (uint32_t seen = 0; node != nullptr && seen < g_AutoSyncCtrlBlkNameHead.count; ++seen) {
        if (strcmp(node->name, name) == 0) {
            return 1u;
        }
        node = node->next;
    }
    return 0u;
}

namespace {

void LinkFirst(AutoSyncNameNode *node)
{
    node->next = g_AutoSyncCtrlBlkNameHead.first;
    g_AutoSyncCtrlBlkNameHead.first = node;
    ++g_AutoSyncCtrlBlkNameHead.count;
}

}  // namespace

ASORCH_API uint32_t AutoSyncSetNameNode(AutoSyncNameNode *node, const char *name)
{
    if (node == nullptr || name == nullptr) {
        return ASORCH_ERR;
    }
    const int ret = strcpy_s(node->name, sizeof(node->name), name);
    if (ret != 0) {
        return static_cast<uint32_t>(ret);
    }
    LinkFirst(node);
    return ASORCH_OK;
}

ASORCH_API uint32_t AutoSyncAddModule(const char *name, ASOrchMemAllocFunc memAlloc)
{
    if (name == nullptr || memAlloc == nullptr || AutoSyncNameExisted(name) != 0u) {
        return ASORCH_ERR;
    }
    // The node is made up on the stack first: there is no release function here, so nothing
    // may fail between the allocation and the link.
    AutoSyncNameNode made;
    if (memset_s(&made, sizeof(made), 0, sizeof(made)) != 0 || strcpy_s(made.name, sizeof(made.name), name) != 0) {
        return ASORCH_ERR;
    }
    auto *node = static_cast<AutoSyncNameNode *>(memAlloc(sizeof(AutoSyncNameNode)));
    if (node == nullptr) {
        return ASORCH_ERR;
    }
    *node = made;
    LinkFirst(node);
    return ASORCH_OK;
}

ASORCH_API void AutoSyncDelNode(AutoSyncNameNode *prev, AutoSyncNameNode *node, ASOrchMemFreeFunc memFree)
{
    if (prev == nullptr || node == nullptr) {
        return;
    }
    if (prev == node) {
        g_AutoSyncCtrlBlkNameHead.first = node->next;
    } else {
        prev->next = node->next;
    }
    --g_AutoSyncCtrlBlkNameHead.count;
    if (memFree != nullptr) {
        memFree(node);
    }
}

ASORCH_API void AutoSyncDelModule(const char *name, ASOrchMemFreeFunc memFree)
{
    if (name == nullptr) {
        return;
    }
    AutoSyncNameNode *prev = g_AutoSyncCtrlBlkNameHead.first;
    AutoSyncNameNode *node = g_AutoSyncCtrlBlkNameHead.first;
    while (node != nullptr && strcmp(node->name, name) != 0) {
        prev = node;
        node = node->next;
    }
    AutoSyncDelNode(prev, node, memFree);
}

ASORCH_API uint32_t ASCombineName(char *dst, uint32_t dstSize, const char *first, const char *second)
{
    if (dst == nullptr || first == nullptr || second == nullptr) {
        return ASORCH_ERR;
    }
    const uint64_t need = static_cast<uint64_t>(strlen(first)) + strlen(second) + 1u;
    if (need > dstSize) {
        return ASORCH_ERR;
    }
    if (strcpy_s(dst, dstSize, first) != 0 || strcat_s(dst, dstSize, second) != 0) {
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}
}
