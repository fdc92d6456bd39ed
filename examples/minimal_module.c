/* The smallest module that takes part in AutoSync: one orchestrator with the DATA thread,
 * the DAM channel and sync group 0, brought up and torn down again. Its allocator counts
 * blocks and bytes so that the run proves the orchestrator returned every byte. */
#include <stdio.h>
#include <stdlib.h>

#include "rix_autosync_orch.h"
#include "rix_platform_test.h"

typedef struct {
    unsigned long allocs;
    unsigned long frees;
    long long liveBytes;
} AllocCount;

static AllocCount g_count;

/* Each block carries its size in front, padded so that user memory stays 16-byte aligned. */
typedef union {
    uint32_t size;
    max_align_t align;
} BlockHead;

static void *ModuleAlloc(uint32_t size)
{
    BlockHead *head = malloc(sizeof(BlockHead) + size);
    if (head == NULL) {
        return NULL;
    }
    head->size = size;
    g_count.allocs++;
    g_count.liveBytes += size;
    return head + 1;
}

static void ModuleFree(void *ptr)
{
    BlockHead *head;
    if (ptr == NULL) {
        return;
    }
    head = (BlockHead *)ptr - 1;
    g_count.frees++;
    g_count.liveBytes -= head->size;
    free(head);
}

static void PrintLog(void)
{
    uint32_t i;
    uint32_t n = RIX_TEST_LogCount();
    for (i = 0; i < n; i++) {
        const char *tag = RIX_TEST_LogTag(i);
        const char *line = RIX_TEST_LogLine(i);
        printf("%s: %s\n", tag != NULL ? tag : "?", line != NULL ? line : "?");
    }
}

int main(void)
{
    ASOrchCreatePara create = {0};
    ASOrchBasePara base = {0};
    ASOrchHandle *orch;
    int failed = 0;

    RIX_TEST_LogCapture(1);

    create.memAlloc = ModuleAlloc;
    create.memFree = ModuleFree;
    orch = ASOrchCreate("minimod", &create);
    if (orch == NULL) {
        fprintf(stderr, "minimal_module: ASOrchCreate failed\n");
        PrintLog();
        return 1;
    }

    base.threadMask = 1u << ASORCH_THREAD_DATA;
    base.syncGrpMsgSet[0] = 1u;
    base.chanPort[ASORCH_CHAN_DAM].realServerPort = 0x1F90u;

    if (ASOrchRegBase(orch, &base) != ASORCH_OK) {
        fprintf(stderr, "minimal_module: ASOrchRegBase failed\n");
        failed = 1;
    } else if (ASOrchInit(orch) != ASORCH_OK) {
        fprintf(stderr, "minimal_module: ASOrchInit failed\n");
        failed = 1;
    } else if (ASOrchStart(orch) != ASORCH_OK) {
        fprintf(stderr, "minimal_module: ASOrchStart failed\n");
        failed = 1;
    }
    ASOrchDestroy(orch);

    PrintLog();
    printf("allocations %lu, releases %lu, bytes held %lld\n", g_count.allocs, g_count.frees, g_count.liveBytes);
    if (g_count.allocs == 0u || g_count.allocs != g_count.frees || g_count.liveBytes != 0) {
        fprintf(stderr, "minimal_module: the orchestrator did not return all its memory\n");
        failed = 1;
    }
    if (RIX_TEST_EalLiveCount() != 0u) {
        fprintf(stderr, "minimal_module: the abstraction-layer instance outlived the orchestrator\n");
        failed = 1;
    }
    printf("minimal_module: %s\n", failed ? "FAILED" : "ok");
    return failed;
}
