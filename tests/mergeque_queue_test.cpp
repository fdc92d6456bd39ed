// The merge queue on its own: lifecycle, merging, the eventfd protocol, water marks,
// back-pressure and the printed text.
#include <sys/epoll.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

struct Rec {
    uint32_t key;
    uint32_t val;
    bool operator==(const Rec &) const = default;
};

uint32_t HashRec(const void *key)
{
    return static_cast<const Rec *>(key)->key;
}
uint32_t CmpRec(const void *stored, const void *searched, uint32_t)
{
    return static_cast<const Rec *>(stored)->key == static_cast<const Rec *>(searched)->key ? 1u : 0u;
}
const void *KeyOf(const void *stored)
{
    return stored;
}

std::vector<uint32_t> g_events;  // flow-control notifies
uint32_t g_drains = 0;           // schedProc calls
std::vector<Rec> g_read;         // what the drain read
uint32_t g_drainMax = 0;         // 0: the drain reads nothing

uint32_t Notify(uint32_t evt, void *)
{
    g_events.push_back(evt);
    return 0;
}
std::vector<Rec> Read(MergeQueCb *q, uint32_t max)
{
    std::vector<Rec> buf(max);
    buf.resize(RIX_MergeQueRead(q, buf.data(), max));
    return buf;
}
uint32_t Drain(MergeQueCb *q)
{
    ++g_drains;
    if (g_drainMax != 0) {
        const std::vector<Rec> got = Read(q, g_drainMax);
        g_read.insert(g_read.end(), got.begin(), got.end());
    }
    return 0;
}
// Adds 100 to the new value: proves the merge function runs before the copy.
void MergeAdd(void *newData, void *)
{
    static_cast<Rec *>(newData)->val += 100;
}

class MergeQueTest : public rixtest::PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        epFd_ = epoll_create1(EPOLL_CLOEXEC);
        para_ = {rixtest::CountingAlloc,
                 rixtest::CountingFree,
                 3u,
                 sizeof(Rec),
                 64u,
                 HashRec,
                 CmpRec,
                 epFd_,
                 KeyOf,
                 Drain,
                 nullptr};
        g_events.clear();
        g_read.clear();
        g_drains = g_drainMax = 0;
    }
    void TearDown() override
    {
        close(epFd_);
        EXPECT_EQ(rixtest::LiveAllocations(), 0);
        EXPECT_EQ(RIX_TEST_HashBlocksInUse(), 0u);
        PlatformTest::TearDown();
    }
    static void Write(MergeQueCb *q, uint32_t key, uint32_t val, int32_t moveTail = 0)
    {
        Rec r{key, val};
        ASSERT_EQ(RIX_MergeQueWrite(q, &r, &r, moveTail), 0u);
    }
    int epFd_ = -1;
    MergeQueCreatePara para_{};
};

TEST_F(MergeQueTest, CreateRefusalsLeaveNoTraceAndDestroyReleasesPendingEntries)
{
    const std::string n31(31, 'x'), n32(32, 'y');
    MergeQueCb *q = RIX_MergeQueCreate(n31.c_str(), &para_);
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(RIX_MergeQueCreate(n31.c_str(), &para_), nullptr);
    EXPECT_TRUE(rixtest::HasLine("[RIX_MERGE_QUE Create] creat Fail because find " + n31 + " exist!"));
    EXPECT_EQ(RIX_MergeQueCreate(n32.c_str(), &para_), nullptr);
    EXPECT_TRUE(rixtest::HasLine("[RIX_MERGE_QUE Create] " + n32 + " strcpy Fail"));
    EXPECT_EQ(RIX_MergeQueNameTreeFind(n32.c_str()), nullptr);
    EXPECT_EQ(RIX_MergeQueCreate(nullptr, &para_), nullptr);
    MergeQueCreatePara bad[3] = {para_, para_, para_};
    bad[0].epFd = -1;
    bad[1].getKeyFunc = nullptr;
    bad[2].dataSize = 65536u;
    const char *badLogs[] = {"[RIX_MERGE_QUE Create] e para epFd invalid.",
                             "[RIX_MQUE Create] e para hash func invalid.", nullptr};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(RIX_MergeQueCreate("e", &bad[i]), nullptr) << i;
        EXPECT_TRUE(badLogs[i] == nullptr || rixtest::HasLine(badLogs[i])) << badLogs[i];
    }
    EXPECT_EQ(rixtest::LiveAllocations(), 1);

    // Failures after the record exists: each removes the name and releases everything.
    const char *ops[][2] = {{"LITE_HASH_CreateWithLock", "[RIX_MERGE_QUE HashCreate] late hash new Fail"},
                            {"eventfd_s", "late Create Eventfd Fail, errno=24"},
                            {"RIX_EPOLL_Add", "late failed to add epoll"}};
    for (const auto &op : ops) {
        RIX_TEST_FailNth(op[0], 1);
        EXPECT_EQ(RIX_MergeQueCreate("late", &para_), nullptr) << op[0];
        EXPECT_TRUE(rixtest::HasLine(op[1])) << rixtest::DumpLines();
        EXPECT_EQ(RIX_MergeQueNameTreeFind("late"), nullptr);
        EXPECT_EQ(rixtest::LiveAllocations(), 1);
    }
    EXPECT_EQ(rixtest::CountContaining("[RIX_MERGE_QUE Create] late init Fail"), 3u);
    bad[0] = para_;  // epFd 0 is a valid descriptor; schedProc and mergeFunc are optional
    bad[0].epFd = 0;
    bad[0].schedProc = nullptr;
    bad[0].mergeFunc = nullptr;
    EXPECT_EQ(RIX_MergeQueCreateCheck("zero", &bad[0]), 0u);
    EXPECT_EQ(RIX_MergeQueNameTreeFind(n31.c_str()), q);

    // Destroyed with pending entries: every block and the eventfd go (blocks checked in TearDown).
    for (uint32_t k = 0; k < 300; ++k) {
        Write(q, k, k);
    }
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), 300u);
    const int fd = q->reader.eventFd;
    RIX_MergeQueDestory(q);
    RIX_MergeQueDestory(nullptr);
    EXPECT_TRUE(rixtest::HasLine("[RIX_MERGE_QUE Destory] " + n31 + " reader list is not empty!"));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(epFd_), 0u);
    EXPECT_EQ(RIX_MergeQueNameTreeFind(n31.c_str()), nullptr);
}

TEST_F(MergeQueTest, MergesKeepOrderAllocateNothingAndNeverCrossWaterMarks)
{
    para_.mergeFunc = MergeAdd;
    MergeQueCb *q = RIX_MergeQueCreate("order", &para_);
    ASSERT_NE(q, nullptr);
    const uint32_t newData = RIX_TEST_CallCount("LITE_HASH_NewData");
    // Round 0: moveTail 0, 1 on the last entry, 2 (only 1 moves): order kept.
    // Round 1: moveTail 1 moves 1 and then 2 behind 3.
    const int32_t moves[2][3] = {{0, 1, 2}, {1, 1, 1}};
    const uint32_t mergedKeys[2][3] = {{1, 3, 2}, {1, 2, 3}};
    const std::vector<Rec> expect[2] = {{{1, 111}, {2, 121}, {3, 131}}, {{3, 30}, {1, 111}, {2, 121}}};
    for (int round = 0; round < 2; ++round) {
        for (uint32_t k = 1; k <= 3; ++k) {
            Write(q, k, k * 10);
        }
        const uint32_t sys = RIX_TEST_HashSystemAllocs();
        for (int i = 0; i < 2 + (round == 0); ++i) {
            Write(q, mergedKeys[round][i], mergedKeys[round][i] * 10 + 1, moves[round][i]);
        }
        EXPECT_EQ(RIX_TEST_CallCount("LITE_HASH_NewData"), newData + 3 * (round + 1));
        EXPECT_EQ(RIX_TEST_HashSystemAllocs(), sys);
        EXPECT_EQ(Read(q, 4), expect[round]) << round;
    }
    Write(q, 2, 5);  // a delivered key starts a new entry
    EXPECT_EQ(Read(q, 4), (std::vector<Rec>{{2, 5}}));

    // Water marks: reports alternate strictly; relief only below the low mark.
    MergeQueMonitorAttr attr{5u, 5u, nullptr, Notify};
    EXPECT_EQ(RIX_MergeQueMonitorReg(q, &attr), 1u);
    EXPECT_TRUE(rixtest::HasLine("merge queue order MonitorReg failed, highWater(5) less than lowWater(5)."));
    EXPECT_EQ(RIX_MergeQueMonitorReg(q, nullptr), 1u);
    EXPECT_TRUE(rixtest::HasLine("MonitorReg failed, para is null, mqueHandle: 0, monitorAttr: 1."));
    attr.highWater = 10u;
    ASSERT_EQ(RIX_MergeQueMonitorReg(q, &attr), 0u);
    for (uint32_t k = 0; k < 10; ++k) {
        Write(q, k, 0);
    }
    EXPECT_TRUE(g_events.empty());
    for (uint32_t k = 0; k < 24; ++k) {
        Write(q, k % 12, 1);  // 10 and 11 are new and cross the mark; the merges never report
    }
    EXPECT_EQ(g_events, std::vector<uint32_t>{0});
    EXPECT_EQ(Read(q, 7).size(), 7u);  // 5 left: not below the low mark
    EXPECT_EQ(g_events.size(), 1u);
    EXPECT_EQ(Read(q, 1).size(), 1u);  // 4 left
    EXPECT_EQ(g_events, (std::vector<uint32_t>{0, 1}));
    EXPECT_EQ(Read(q, 4).size(), 4u);
    for (uint32_t k = 0; k < 11; ++k) {
        Write(q, k, 2);
    }
    EXPECT_EQ(g_events, (std::vector<uint32_t>{0, 1, 0}));
    EXPECT_EQ(q->queStat[MERGEQUE_QSTAT_OVER_HIGH_WATER].count, 2u);
    EXPECT_EQ(q->queStat[MERGEQUE_QSTAT_UNDER_LOW_WATER].count, 1u);
    RIX_MergeQueDestory(q);
}

TEST_F(MergeQueTest, EventfdUnitsDriveTheDrainThroughBackPressAndFailedCallbacks)
{
    MergeQueCb *q = RIX_MergeQueCreate("wake", &para_);
    ASSERT_NE(q, nullptr);
    Write(q, 1, 0);
    Write(q, 2, 0);
    Write(q, 1, 1);
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(epFd_), 1u);   // one unit: the empty-to-non-empty write
    EXPECT_EQ(Read(q, 1), (std::vector<Rec>{{1, 1}}));  // partial read: one more unit
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(epFd_), 1u);
    EXPECT_EQ(Read(q, 5).size(), 1u);  // emptied: none
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(epFd_), 0u);

    g_drains = 0;
    g_drainMax = 32;
    for (uint32_t k = 100; k < 140; ++k) {
        Write(q, k, k);
    }
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(epFd_), 2u);
    ASSERT_EQ(g_read.size(), 40u);
    for (uint32_t i = 0; i < 40; ++i) {
        EXPECT_EQ(g_read[i].key, 100u + i);
    }
    EXPECT_EQ(q->reader.readerStat[MERGEQUE_RSTAT_EMPTY_READ].count, 4u + 24u);

    // Invalid reads change nothing; a wake-up without a unit reports and reads nothing.
    EXPECT_EQ(RIX_MergeQueRead(q, nullptr, 4), 0u);
    EXPECT_EQ(RIX_MergeQueReadCallBack(
                  q, 0, [](void *, uint32_t, void *) { return 0u; }, nullptr),
              0u);
    EXPECT_EQ(q->reader.readerStat[MERGEQUE_RSTAT_EMPTY_READ].count, 28u);
    EXPECT_EQ(RIX_MergeQueSchedProc(q->reader.eventFd, 1, q), 1u);
    EXPECT_TRUE(rixtest::HasLine("merge queue wake Fail To Sched, errno=11"));
    EXPECT_EQ(g_drains, 2u);

    // Back-pressed: units are held, then delivered once released.
    g_read.clear();
    uint32_t para = 0;
    EXPECT_EQ(RIX_MergeQueUnBackPress(q, &para), 1u);
    EXPECT_TRUE(rixtest::HasLine("wake has add epoll."));
    EXPECT_TRUE(rixtest::HasLine("merge queue wake UnbackPress failed."));
    EXPECT_EQ(RIX_MergeQueBackPress(q, 77u), 0u);
    for (uint32_t k = 0; k < 6; ++k) {
        Write(q, k % 5, k == 5 ? 9 : k);
    }
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(epFd_), 0u);
    EXPECT_EQ(RIX_MergeQueUnBackPress(q, &para), 0u);
    EXPECT_EQ(para, 77u);
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(epFd_), 1u);
    ASSERT_EQ(g_read.size(), 5u);
    EXPECT_EQ(g_read[0].val, 9u);
    EXPECT_EQ(RIX_MergeQueBackPress(nullptr, 0u), 1u);
    EXPECT_TRUE(rixtest::HasLine("merge queue BackPress failed, handle is null."));

    // A failing callback is reported per batch, yet the queue still empties.
    for (uint32_t k = 0; k < 3; ++k) {
        Write(q, k, k);
    }
    uint32_t seen = 0;
    auto failing = [](void *data, uint32_t size, void *ctx) {
        EXPECT_EQ(size, sizeof(Rec));
        EXPECT_EQ(static_cast<Rec *>(data)->key, (*static_cast<uint32_t *>(ctx))++);
        return 1u;
    };
    EXPECT_EQ(RIX_MergeQueReadCallBack(q, 2, failing, &seen), 2u);
    EXPECT_EQ(RIX_MergeQueReadCallBack(q, 2, failing, &seen), 1u);
    EXPECT_TRUE(rixtest::HasLine("wake read 1 msgVec callBack proc failed!"));
    EXPECT_EQ(rixtest::CountContaining("wake read 2 msgVec callBack proc failed!"), 1u);
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), 0u);
    RIX_MergeQueDestory(q);
}

TEST_F(MergeQueTest, PrintedTextFollowsNameOrderFitsTheBufferAndShowsStamps)
{
    MergeQueCb *qs[3];
    const char *names[] = {"b_DAM", "a_FES", "a_DAM"};
    for (int i = 0; i < 3; ++i) {
        ASSERT_NE(qs[i] = RIX_MergeQueCreate(names[i], &para_), nullptr);
    }
    auto list = [] {
        std::string b(8192, '\x7f');
        b.resize(RIX_PrintMergeQueListAll(b.data(), 8192));
        return b;
    };
    EXPECT_EQ(list(),
              "------------------------\nIndex    MQ-1THD Name    \n------------------------\n"
              "0        a_DAM           \n1        a_FES           \n2        b_DAM           \n");

    std::string fresh(8192, '\0');
    fresh.resize(RIX_PrintMergeQueInfo("a_FES", fresh.data(), 8192));
    EXPECT_EQ(fresh.find("MQUE-1THD-NAME : a_FES[MQUE]\n"), 0u);
    char row[128];
    snprintf(row, sizeof row, "MQUE-1THD-INFO : MemPtNo [   3], DataSize [   8], HashSize [  64], EpFd [%4d]\n", epFd_);
    EXPECT_NE(fresh.find(row), std::string::npos);

    // A short buffer: each line either fits whole (with its terminator) or is left out.
    for (uint32_t len : {1u, 40u, 300u, 1000u}) {
        std::string expect;
        for (size_t at = 0, end; at < fresh.size(); at = end) {
            end = fresh.find('\n', at) + 1;
            if (end == at + 1) {  // a line that starts with a line end
                end = fresh.find('\n', end) + 1;
            }
            if (expect.size() + (end - at) < len) {
                expect += fresh.substr(at, end - at);
            }
        }
        std::string buf(len, '\0');
        EXPECT_EQ(buf.substr(0, RIX_PrintMergeQueInfo("a_FES", buf.data(), len)), expect) << len;
    }
    std::string untouched(16, 'u');
    EXPECT_EQ(RIX_PrintMergeQueInfo("none", untouched.data(), 16), 0u);
    EXPECT_EQ(untouched, std::string(16, 'u'));
    for (MergeQueCb *q : qs) {
        RIX_MergeQueDestory(q);
    }
    EXPECT_EQ(list().size(), 25u + 26u + 25u);

    // Stamps print as local month-day time with milliseconds.
    struct tm t = {};
    ASSERT_NE(strptime("2026-11-16 11:43:21", "%Y-%m-%d %H:%M:%S", &t), nullptr);
    t.tm_isdst = -1;
    MergeQueTimeStamp stamp{(static_cast<uint64_t>(mktime(&t)) & ((uint64_t{1} << 44) - 1)) | (uint64_t{123456} << 44)};
    char out[32];
    EXPECT_STREQ(RIX_MergeQueTrans2Time(out, sizeof out, &stamp), "11-16 11:43:21.123");
    EXPECT_STREQ(RIX_MergeQueTrans2Time(out, 10, &stamp), "");
    stamp.packed = 0;
    EXPECT_STREQ(RIX_MergeQueTrans2Time(out, sizeof out, &stamp), "--:--:--.---");
    EXPECT_STREQ(RIX_MergeQueGetStatDesc(4), "MergeQue Unknown Error");
    EXPECT_STREQ(RIX_MergeQueGetReaderStatDesc(11), "MergeQue Reader Unknown Error");
}

// The write path's exported steps, which a container of the module's own may compose: each
// does its one part, and together they make the same queue as RIX_MergeQueWrite.
TEST_F(MergeQueTest, ExportedStepsComposeAQueue)
{
    para_.mergeFunc = MergeAdd;
    MergeQueCb *q = RIX_MergeQueCreate("steps", &para_);
    ASSERT_NE(q, nullptr);
    Rec a{1, 10}, b{2, 20};
    MergeQueHashData *d = RIX_MergeQueNewHashData(q, &a, &a);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->link.next, &d->link) << "a new entry links to itself";
    EXPECT_EQ(q->reader.itemCnt, 0u) << "in the table, not yet in the list";
    RIX_MergeQueSetStat(q, &a);
    EXPECT_EQ(q->queStat[MERGEQUE_QSTAT_HISTORY_MAX_CNT].count, 1u);
    RIX_MergeQueAttachMsgList(q, d);
    ASSERT_EQ(RIX_MergeQueNewWrite(q, &b, &b), 0u);
    EXPECT_EQ(q->reader.itemCnt, 2u);
    RIX_MergeQueMsgListMoveTail(q, d);  // a behind b
    Rec a2{1, 11};
    RIX_MergeQueMergeWrite(q, &a2, d, 0);
    EXPECT_EQ(q->reader.readerStat[MERGEQUE_RSTAT_SUCC_MERGE].count, 1u);
    EXPECT_EQ(Read(q, 4), (std::vector<Rec>{{2, 20}, {1, 111}}));

    // Taken out by hand: the entry links to itself again and the count follows.
    d = RIX_MergeQueNewHashData(q, &a, &a);
    ASSERT_NE(d, nullptr);
    RIX_MergeQueAttachMsgList(q, d);
    RIX_MergeQueDetachMsgList(q, d);
    EXPECT_EQ(d->link.next, &d->link);
    EXPECT_EQ(q->reader.itemCnt, 0u);
    RIX_MergeQueRemoveHash(q, d);
    (void)LITE_HASH_FreeData(q->hash, d);

    // A name dropped from the tree by hand frees the name for a new queue.
    RIX_MergeQueNameTreeDelete(nullptr);
    RIX_MergeQueNameTreeDelete("steps");
    EXPECT_TRUE(rixtest::HasLine("steps NameTreeDelete."));
    MergeQueCb *again = RIX_MergeQueCreate("steps", &para_);
    ASSERT_NE(again, nullptr);
    RIX_MergeQueDestory(again);
    RIX_MergeQueDestory(q);
}

}  // namespace
