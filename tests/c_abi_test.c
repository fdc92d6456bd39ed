/* The umbrella header is plain C11: a C module includes it and links the library. */
#include "rix_autosync_orch.h"

#include <stdio.h>

int main(void)
{
    ASOrchBasePara base = {0};
    ASOrchMsgVec vec = {0};
    base.threadMask = 1u;
    vec.keyLen = 4u;
    /* A null name is refused without touching the platform. */
    if (ASOrchCreate(NULL, NULL) != NULL) {
        return 1;
    }
    printf("c abi ok %u %u\n", (unsigned)base.threadMask, (unsigned)vec.keyLen);
    return 0;
}
