/* Merge queue: a named, hashed, coalescing queue of fixed-size entries with one reader.
 * The orchestrator builds one per merge channel; a module may also use the queue on its own.
 * A queue has no lock: its writes, reads, back-press and monitor all run on one thread, the
 * thread of the epoll set its reader is registered in (the DATA thread for the
 * orchestrator's queues). Only the process-wide name tree is locked. Entry data is copied in
 * and out (dataSize bytes); the queue never keeps a caller's pointer. */
#ifndef RIX_MERGEQUE_H
#define RIX_MERGEQUE_H

#include <pthread.h>

#include "rix_as_common.h"
#include "zul_avl3.h"

ASORCH_EXTERN_C_BEGIN

/* The bucket hash handed to the hash service: bucket = hashFunc(key) % bucket count. key is
 * what the writer passed to RIX_MergeQueWrite, and getKeyFunc(stored data) when an entry is
 * removed, so both must hash alike for the same entry. In the orchestrator's queues it is a
 * const ASOrchMsgVec * (see ASOrchMergeReg). Required (not null). */
typedef uint32_t (*MergeQueHashFunc)(const void *key);

typedef struct MergeQueCb MergeQueCb;

/* Non-zero when the stored entry data matches what is searched; arg is handed on unchanged
 * from the hash service. */
typedef uint32_t (*MergeQueCmpFunc)(const void *stored, const void *searched, uint32_t arg);
/* The hash key under which a stored entry's data sits. */
typedef const void *(*MergeQueGetKeyFunc)(const void *stored);
/* The reader's drain function, called on every wake-up on the reader's thread; its result is
 * not used. While entries remain after it the queue wakes itself again. */
typedef uint32_t (*MergeQueSchedProcFunc)(MergeQueCb *q);
/* Called when a write meets a pending entry of the same key, before the new data replaces
 * the stored data; it may change either. */
typedef void (*MergeQueMergeFunc)(void *newData, void *storedData);
/* Read callback: the entry's data (valid during the call only), dataSize, the caller's
 * context; 0 for success. */
typedef uint32_t (*MergeQueReadCallBackFunc)(void *data, uint32_t dataSize, void *usrData);
/* Flow-control notify: evtType 0 over the high water mark, 1 back under the low one. */
typedef uint32_t (*MergeQueFlowCtrlNotifyFunc)(uint32_t evtType, void *notifyPara);

#define MERGEQUE_NAME_LEN 32u
#define MERGEQUE_EVT_OVER_HIGH_WATER 0u
#define MERGEQUE_EVT_UNDER_LOW_WATER 1u

/* Reader statistics: ids of g_mergeQueReaderStatDesc and slots of readerStat, printed under
 * the texts of that table. "Success Write" counts writes that made a new entry, "Success
 * Merge" writes merged into a pending one, "Success Read" entries read, "Empty Read" the
 * unused slots of each read (maxCnt minus the entries returned: a drain of 32 that finds 5
 * adds 27), not wake-ups without work. "BackPress" / "UnBackPress" count the reader's
 * removals from and returns to its epoll set. "Fail Merge" and "Fail Read" stay 0. */
enum {
    MERGEQUE_RSTAT_SUCC_MERGE = 0,
    MERGEQUE_RSTAT_FAIL_MERGE = 1,
    MERGEQUE_RSTAT_SUCC_WRITE = 2,
    MERGEQUE_RSTAT_SUCC_READ = 3,
    MERGEQUE_RSTAT_FAIL_WRITE = 4,
    MERGEQUE_RSTAT_FAIL_READ = 5,
    MERGEQUE_RSTAT_EMPTY_READ = 6,
    MERGEQUE_RSTAT_WRITE_NOTIFY_ERR = 7,
    MERGEQUE_RSTAT_READ_NOTIFY_ERR = 8,
    MERGEQUE_RSTAT_BACKPRESS = 9,
    MERGEQUE_RSTAT_UNBACKPRESS = 10,
    MERGEQUE_RSTAT_NUM = 11
};

/* Queue statistics: ids of g_mergeQueStatDesc and slots of queStat. "MergeQue MaxConflict":
 * the most entries seen in one bucket; "MergeQue HistoryMaxCnt": the most entries pending at
 * once; "OverHighWater" / "UnderLowWater": monitor reports. */
enum {
    MERGEQUE_QSTAT_MAX_CONFLICT = 0,
    MERGEQUE_QSTAT_HISTORY_MAX_CNT = 1,
    MERGEQUE_QSTAT_OVER_HIGH_WATER = 2,
    MERGEQUE_QSTAT_UNDER_LOW_WATER = 3,
    MERGEQUE_QSTAT_NUM = 4
};

/* Wall-clock stamp packed in 64 bits: bits 0-43 seconds since the epoch (signed),
 * bits 44-63 microseconds. All zero: never set. */
typedef struct MergeQueTimeStamp {
    uint64_t packed;
} MergeQueTimeStamp;

typedef struct MergeQueStat {
    uint32_t count;
    MergeQueTimeStamp stamp;
} MergeQueStat;

/* One row of a statistic table: id, printed text, non-zero to stamp every change. */
typedef struct MergeQueStatDesc {
    uint32_t id;
    const char *desc;
    uint32_t stampFlag;
} MergeQueStatDesc;

ASORCH_LAYOUT_ASSERT(sizeof(MergeQueStatDesc) == 12, "statistic description is three words");

typedef struct MergeQueCreatePara {
    ASOrchMemAllocFunc memAlloc; /* allocates the queue record */
    ASOrchMemFreeFunc memFree;   /* releases it */
    uint32_t memPtNo;            /* handed to the hash service */
    uint32_t dataSize;           /* bytes of user data per entry */
    uint32_t hashSize;           /* buckets */
    MergeQueHashFunc hashFunc;
    MergeQueCmpFunc cmpFunc;
    int32_t epFd; /* epoll set of the reader */
    MergeQueGetKeyFunc getKeyFunc;
    MergeQueSchedProcFunc schedProc; /* may be null */
    MergeQueMergeFunc mergeFunc;     /* may be null */
} MergeQueCreatePara;

ASORCH_LAYOUT_ASSERT(sizeof(MergeQueCreatePara) == 44, "create parameters are eleven words");

typedef struct MergeQueMonitorAttr {
    uint32_t highWater;
    uint32_t lowWater;
    void *notifyPara;
    MergeQueFlowCtrlNotifyFunc flowCtrlNotify;
} MergeQueMonitorAttr;

ASORCH_LAYOUT_ASSERT(sizeof(MergeQueMonitorAttr) == 16, "monitor attributes are four words");

/* Links of the pending list; an empty list's head points at itself. */
typedef struct MergeQueLink {
    struct MergeQueLink *next;
    struct MergeQueLink *prev;
} MergeQueLink;

/* One pending entry: a data block of the queue's hash table. */
typedef struct MergeQueHashData {
    MergeQueCb *owner;
    MergeQueLink link;
    unsigned char data[]; /* dataSize bytes */
} MergeQueHashData;

ASORCH_LAYOUT_ASSERT(sizeof(MergeQueHashData) == 12, "entry header is three words");

typedef struct MergeQueReader {
    MergeQueLink msgList; /* oldest first */
    uint32_t itemCnt;
    MergeQueStat readerStat[MERGEQUE_RSTAT_NUM];
    int32_t eventFd;   /* -1 before the first registration */
    uint32_t epollReg; /* 1 while eventFd is in the epoll set */
    uint32_t backPressPara;
} MergeQueReader;

struct MergeQueCb {
    ZUL_AVL3_NODE treeNode; /* first: the node's address is the handle */
    char name[MERGEQUE_NAME_LEN];
    MergeQueCreatePara para;
    void *hash;
    MergeQueReader reader;
    MergeQueStat queStat[MERGEQUE_QSTAT_NUM];
    uint32_t highWater;
    uint32_t lowWater;
    MergeQueFlowCtrlNotifyFunc flowCtrlNotify;
    void *notifyPara;
    uint32_t overLoad;
};

/* Process-wide registry of queue names. */
typedef struct MergeQueGlbCb {
    ZUL_AVL3_TREE nameTree;
    ZUL_AVL3_TREE_INFO nameTreeInfo;
    uint32_t initFlag;
    pthread_mutex_t glbInitMutex;  /* guards initFlag and the tree initialisation */
    pthread_mutex_t nameTreeMutex; /* guards every access to nameTree */
} MergeQueGlbCb;

ASORCH_API extern MergeQueGlbCb g_rixMergeQueGlbCb;
ASORCH_API extern MergeQueStatDesc g_mergeQueStatDesc[MERGEQUE_QSTAT_NUM];
ASORCH_API extern MergeQueStatDesc g_mergeQueReaderStatDesc[MERGEQUE_RSTAT_NUM];

/* ---- Lifecycle ---- */
/* A queue under a process-unique name (at most 31 characters), its record from
 * para->memAlloc, its reader registered in para->epFd at once. Null (logged) for a bad
 * parameter (null memory or hash functions, negative epFd, hashSize 0, dataSize too large),
 * a name in use, or a failure of the platform. */
ASORCH_API MergeQueCb *RIX_MergeQueCreate(const char *name, const MergeQueCreatePara *para);
/* Takes the reader out of its epoll set, closes its eventfd, frees the name, the pending
 * entries (without calling anyone for them) and the record. On the reader's thread, or once
 * it no longer drains this queue. */
ASORCH_API void RIX_MergeQueDestory(MergeQueCb *q);
ASORCH_API uint32_t RIX_MergeQueCreateCheck(const char *name, const MergeQueCreatePara *para);
ASORCH_API uint32_t RIX_Merge_Init(const char *name, MergeQueCb *q, const MergeQueCreatePara *para);
ASORCH_API uint32_t RIX_MergeQueGlbInit(const char *name);
ASORCH_API void RIX_MergeQueNameTreeInit(void);
ASORCH_API MergeQueCb *RIX_MergeQueNameTreeFind(const char *name);
ASORCH_API uint32_t RIX_MergeQueNameTreeInsert(MergeQueCb *q);
ASORCH_API void RIX_MergeQueNameTreeDelete(const char *name);
ASORCH_API int32_t RIX_MergeQueStrCompare(const void *name1, const void *name2);
ASORCH_API uint32_t RIX_MergeQueHashCreate(MergeQueCb *q);
ASORCH_API void RIX_MergeQueHashDelete(MergeQueCb *q);
/* The hash service's compare function; data is a MergeQueHashData block. */
ASORCH_API uint32_t RIX_MergeQueHashCmpFunc(void *data, const void *searched, uint32_t arg);

/* ---- Write and merge (the queue's thread only) ---- */
/* Copies dataSize bytes of data into the queue; key is used for the lookup during the call
 * and not kept. A pending entry with an equal key (cmpFunc) is merged: mergeFunc(data,
 * stored) runs first and may change either, then data replaces the stored bytes; moveTail 1
 * moves the entry behind all others, else it keeps its place. A new key becomes a new entry
 * at the tail and the first entry of an empty queue wakes the reader. 1 (logged, counted as
 * "Fail Write") when the entry cannot be allocated or added. */
ASORCH_API uint32_t RIX_MergeQueWrite(MergeQueCb *q, const void *key, const void *data, int32_t moveTail);
ASORCH_API uint32_t RIX_MergeQueNewWrite(MergeQueCb *q, const void *key, const void *data);
ASORCH_API void RIX_MergeQueMergeWrite(MergeQueCb *q, const void *data, MergeQueHashData *d, int32_t moveTail);
ASORCH_API MergeQueHashData *RIX_MergeQueNewHashData(MergeQueCb *q, const void *key, const void *data);
ASORCH_API void RIX_MergeQueSetStat(MergeQueCb *q, const void *key);
ASORCH_API void RIX_MergeQueAttachMsgList(MergeQueCb *q, MergeQueHashData *d);
ASORCH_API void RIX_MergeQueDetachMsgList(MergeQueCb *q, MergeQueHashData *d);
ASORCH_API void RIX_MergeQueMsgListMoveTail(MergeQueCb *q, MergeQueHashData *d);

/* ---- Readers and notification (the queue's thread only) ---- */
/* Take up to maxCnt entries, oldest first, out of the queue; the number taken.
 * buf holds maxCnt * dataSize bytes. */
ASORCH_API uint32_t RIX_MergeQueRead(MergeQueCb *q, void *buf, uint32_t maxCnt);
/* The same, handing each entry to cb: the entry is out of the queue before cb runs, so a
 * write of the same key during cb makes a new entry; a non-zero result is logged. */
ASORCH_API uint32_t RIX_MergeQueReadCallBack(MergeQueCb *q, uint32_t maxCnt, MergeQueReadCallBackFunc cb,
                                             void *usrData);
ASORCH_API uint32_t RIX_MergeQueReadBase(MergeQueCb *q, uint32_t size, void *buf, uint32_t maxCnt);
ASORCH_API uint32_t RIX_MergeQueReadToCallBack(MergeQueCb *q, uint32_t maxCnt, MergeQueReadCallBackFunc cb,
                                               void *usrData);
ASORCH_API void RIX_MergeQueRemoveHash(MergeQueCb *q, MergeQueHashData *d);
ASORCH_API void RIX_MergeQueNotifyByRead(MergeQueCb *q);
ASORCH_API uint32_t RIX_MergeQueReaderInit(MergeQueCb *q);
ASORCH_API uint32_t RIX_MergeQueEpollReg(MergeQueCb *q);
ASORCH_API void RIX_MergeQueEpollUnReg(MergeQueCb *q);
/* The epoll callback (RIX_EPOLL_CALLBACK): fd the queue's eventfd, events unused, ctx the
 * MergeQueCb. */
ASORCH_API uint32_t RIX_MergeQueSchedProc(int32_t fd, uint32_t events, void *ctx);

/* ---- Water marks and back-pressure ----
 * The monitor requires highWater > lowWater and a notify function; it is called inside a
 * write (count rises above highWater) or a read (falls below lowWater), on the queue's
 * thread. BackPress takes the reader out of its epoll set, so writes go on merging and
 * nothing drains; UnBackPress puts it back (para, when not null, receives the word given to
 * BackPress). */
ASORCH_API uint32_t RIX_MergeQueMonitorReg(MergeQueCb *q, const MergeQueMonitorAttr *attr);
ASORCH_API uint32_t RIX_MergeQueMonitorCheck(const MergeQueCb *q, const MergeQueMonitorAttr *attr);
ASORCH_API void RIX_MergeQueMonitorWrite(MergeQueCb *q);
ASORCH_API void RIX_MergeQueMonitorRemove(MergeQueCb *q);
ASORCH_API uint32_t RIX_MergeQueBackPress(MergeQueCb *q, uint32_t para);
ASORCH_API uint32_t RIX_MergeQueUnBackPress(MergeQueCb *q, uint32_t *para);

/* ---- Statistics and diagnostic printing ----
 * The printers read the counters without a lock: call them on the queue's thread or while
 * the queue is quiet. ListAll and Info take the name-tree lock to find the queues. */
ASORCH_API const char *RIX_MergeQueGetStatDesc(uint32_t id);
ASORCH_API const char *RIX_MergeQueGetReaderStatDesc(uint32_t id);
ASORCH_API void RIX_MergeQueSetTimeStamp(MergeQueTimeStamp *stamp);
/* Month-day time.milliseconds in local time, or "--:--:--.---" for an unset stamp. */
ASORCH_API char *RIX_MergeQueTrans2Time(char *out, uint32_t outLen, const MergeQueTimeStamp *stamp);
/* Each returns the number of characters written into buf; lines that do not fit are left out. */
ASORCH_API uint32_t RIX_PrintMergeQueListAll(char *buf, uint32_t len);
ASORCH_API uint32_t RIX_PrintMergeQueInfo(const char *name, char *buf, uint32_t len);
ASORCH_API uint32_t RIX_PrintMergeQueBaseInfo(const MergeQueCb *q, char *buf, uint32_t len);
ASORCH_API uint32_t RIX_PrintMergeQueStat(const MergeQueCb *q, char *buf, uint32_t len);
ASORCH_API uint32_t RIX_PrintMergeQueReaderInfo(const MergeQueReader *reader, char *buf, uint32_t len);
ASORCH_API uint32_t RIX_PrintMergeQueReaderBaseInfo(const MergeQueReader *reader, char *buf, uint32_t len);

ASORCH_EXTERN_C_END

#endif
