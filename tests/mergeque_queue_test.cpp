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
};

uint32_t HashRec(const void *key) { return static_cast<const Rec *>(key)->key; }
uint32_t CmpRec(const void *stored, const void *searched, uint32_t)
{
    return static_cast<const Rec *>(stored)->key == static_cast<const Rec *>(searched)->key ? 1u : 0u;
}
const void *KeyOf(const void *stored) { return stored; }

std::vector<uint32_t> g_events;  // flow-control notifies
uint32_t g_drains = 0;           // schedProc calls
std::vector<Rec> g_read;         // what the drain read
uint32_t g_drainMax = 0;         // 0: the drain reads nothing

uint32_t Notify(uint32_t evt, void *) { g_events.push_back(evt); return 0; }
uint32_t Drain(MergeQueCb *q)
{
    ++g_drains;
    if (g_drainMax != 0) {
        std::vector<Rec> buf(g_drainMax);
        const uint32_t n = RIX_MergeQueRead(q, buf.data(), g_drainMax);
        g_read.insert(g_read.end(), buf.begin(), buf.begin() + n);
    }
    return 0;
}
// Adds 100 to the new value: proves the merge function runs before the copy.
void MergeAdd(void *newData, void *) { static_cast<Rec *>(newData)->val += 100; }

class MergeQueTest : public rixtest::PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        epFd_ = epoll_create1(EPOLL_CLOEXEC);
        para_ = {rixtest::CountingAlloc, rixtest::CountingFree, 3u, sizeof(Rec), 64u, HashRec, CmpRec,
                 epFd_, KeyOf, Drain, nullptr};
        g_events.clear();
        g_read.clear();
        g_drains = 0;
        g_drainMax = 0;
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
    static std::vector<uint32_t> ReadKeys(MergeQueCb *q, uint32_t max)
    {
        std::vector<Rec> buf(max);
        std::vector<uint32_t> keys;
        const uint32_t n = RIX_MergeQueRead(q, buf.data(), max);
        for (uint32_t i = 0; i < n; ++i) {
            keys.push_back(buf[i].key);
        }
        return keys;
    }
    static std::string Print(uint32_t (*fn)(char *, uint32_t), uint32_t len = 8192)
    {
        std::string buf(len, '\x7f');
        buf.resize(fn(buf.data(), len));
        return buf;
    }
    int epFd_ = -1;
    MergeQueCreatePara para_{};
};

TEST_F(MergeQueTest, CreateRefusalsLeaveNoTraceAndNamesAreUnique)
{
    const std::string n31(31, 'x'), n32(32, 'y');
    MergeQueCb *q = RIX_MergeQueCreate(n31.c_str(), &para_);
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(rixtest::GetAllocStats().allocs, 1u);
    EXPECT_EQ(RIX_MergeQueNameTreeFind(n31.c_str()), q);
    EXPECT_EQ(RIX_MergeQueCreate(n31.c_str(), &para_), nullptr);
    EXPECT_TRUE(rixtest::HasLine("[RIX_MERGE_QUE Create] creat Fail because find " + n31 + " exist!"));

    EXPECT_EQ(RIX_MergeQueCreate(n32.c_str(), &para_), nullptr);
    EXPECT_TRUE(rixtest::HasLine("[RIX_MERGE_QUE Create] " + n32 + " strcpy Fail"));
    EXPECT_EQ(RIX_MergeQueNameTreeFind(n32.c_str()), nullptr);
    EXPECT_EQ(rixtest::LiveAllocations(), 1);
    MergeQueCreatePara bad = para_;
    bad.epFd = -1;
    EXPECT_EQ(RIX_MergeQueCreate("e", &bad), nullptr);
    EXPECT_TRUE(rixtest::HasLine("[RIX_MERGE_QUE Create] e para epFd invalid."));
    bad = para_;
    bad.getKeyFunc = nullptr;
    EXPECT_EQ(RIX_MergeQueCreate("h", &bad), nullptr);
    EXPECT_TRUE(rixtest::HasLine("[RIX_MQUE Create] h para hash func invalid."));
    bad = para_;
    bad.dataSize = 65536u;
    EXPECT_EQ(RIX_MergeQueCreate("d", &bad), nullptr);
    EXPECT_EQ(RIX_MergeQueCreate(nullptr, &para_), nullptr);

    // Failures after the record exists: each removes the name and releases everything.
    const char *ops[] = {"LITE_HASH_CreateWithLock", "eventfd_s", "RIX_EPOLL_Add"};
    const char *logs[] = {"[RIX_MERGE_QUE HashCreate] late hash new Fail", "late Create Eventfd Fail, errno=24",
                          "late failed to add epoll"};
    for (int i = 0; i < 3; ++i) {
        RIX_TEST_FailNth(ops[i], 1);
        EXPECT_EQ(RIX_MergeQueCreate("late", &para_), nullptr) << ops[i];
        EXPECT_TRUE(rixtest::HasLine(logs[i])) << rixtest::DumpLines();
        EXPECT_EQ(RIX_MergeQueNameTreeFind("late"), nullptr);
        EXPECT_EQ(rixtest::LiveAllocations(), 1);
    }
    EXPECT_EQ(rixtest::CountContaining("[RIX_MERGE_QUE Create] late init Fail"), 3u);
    bad = para_;
    bad.epFd = 0;
    bad.schedProc = nullptr;
    bad.mergeFunc = nullptr;
    EXPECT_EQ(RIX_MergeQueCreateCheck("zero", &bad), 0u);
    EXPECT_EQ(RIX_MergeQueNameTreeFind(n31.c_str()), q);

    RIX_MergeQueDestory(q);
    RIX_MergeQueDestory(nullptr);
    EXPECT_EQ(RIX_MergeQueNameTreeFind(n31.c_str()), nullptr);
    para_.epFd = epFd_;
    q = RIX_MergeQueCreate(n31.c_str(), &para_);
    ASSERT_NE(q, nullptr);
    RIX_MergeQueDestory(q);
}

TEST_F(MergeQueTest, DestroyWithPendingEntriesReleasesEveryBlockAndTheEventfd)
{
    MergeQueCb *q = RIX_MergeQueCreate("pending", &para_);
    ASSERT_NE(q, nullptr);
    for (uint32_t k = 0; k < 300; ++k) {
        Write(q, k, k);
    }
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), 300u);
    const int fd = q->reader.eventFd;
    RIX_MergeQueDestory(q);
    EXPECT_TRUE(rixtest::HasLine("[RIX_MERGE_QUE Destory] pending reader list is not empty!"));
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), 0u);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(epFd_), 0u);
}

TEST_F(MergeQueTest, MergesKeepOrderUnlessMovedAndAllocateNothing)
{
    para_.mergeFunc = MergeAdd;
    MergeQueCb *q = RIX_MergeQueCreate("order", &para_);
    ASSERT_NE(q, nullptr);
    const uint32_t newData = RIX_TEST_CallCount("LITE_HASH_NewData");
    Write(q, 1, 10);
    Write(q, 2, 20);
    Write(q, 3, 30);
    Write(q, 1, 11, 0);
    Write(q, 3, 31, 1);  // the last entry: stays last
    Write(q, 2, 21, 2);  // only 1 moves
    EXPECT_EQ(RIX_TEST_CallCount("LITE_HASH_NewData"), newData + 3);
    std::vector<Rec> buf(4);
    ASSERT_EQ(RIX_MergeQueRead(q, buf.data(), 4), 3u);
    EXPECT_EQ(buf[0].key, 1u);
    EXPECT_EQ(buf[0].val, 111u);
    EXPECT_EQ(buf[1].key, 2u);
    EXPECT_EQ(buf[2].key, 3u);
    EXPECT_EQ(buf[2].val, 131u);

    Write(q, 1, 10);
    Write(q, 2, 20);
    Write(q, 3, 30);
    const uint32_t sys = RIX_TEST_HashSystemAllocs();
    Write(q, 1, 13, 1);
    Write(q, 2, 21, 1);
    EXPECT_EQ(RIX_TEST_CallCount("LITE_HASH_NewData"), newData + 6);
    EXPECT_EQ(RIX_TEST_HashSystemAllocs(), sys);
    EXPECT_EQ(q->reader.itemCnt, 3u);
    EXPECT_EQ(q->reader.readerStat[MERGEQUE_RSTAT_SUCC_MERGE].count, 5u);
    EXPECT_EQ(q->reader.readerStat[MERGEQUE_RSTAT_SUCC_WRITE].count, 6u);
    ASSERT_EQ(RIX_MergeQueRead(q, buf.data(), 4), 3u);
    EXPECT_EQ(buf[0].key, 3u);
    EXPECT_EQ(buf[1].key, 1u);
    EXPECT_EQ(buf[1].val, 113u);
    EXPECT_EQ(buf[2].key, 2u);
    // A delivered key starts a new entry.
    Write(q, 2, 5);
    EXPECT_EQ(q->reader.itemCnt, 1u);
    EXPECT_EQ(q->queStat[MERGEQUE_QSTAT_HISTORY_MAX_CNT].count, 3u);
    RIX_MergeQueDestory(q);
}

TEST_F(MergeQueTest, EventfdUnitsDriveTheDrainBatchByBatch)
{
    MergeQueCb *q = RIX_MergeQueCreate("wake", &para_);
    ASSERT_NE(q, nullptr);
    Write(q, 1, 0);
    Write(q, 2, 0);
    Write(q, 1, 1);
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(epFd_), 1u);  // one unit: the empty-to-non-empty write
    EXPECT_EQ(g_drains, 1u);
    EXPECT_EQ(ReadKeys(q, 1), std::vector<uint32_t>{1});  // partial read: one more unit
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(epFd_), 1u);
    EXPECT_EQ(ReadKeys(q, 5), std::vector<uint32_t>{2});  // emptied: none
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
    EXPECT_NE(q->reader.readerStat[MERGEQUE_RSTAT_EMPTY_READ].stamp.packed, 0u);

    // Invalid reads change nothing; a wake-up without a unit reports and reads nothing.
    EXPECT_EQ(RIX_MergeQueRead(q, nullptr, 4), 0u);
    EXPECT_EQ(RIX_MergeQueReadCallBack(q, 0, [](void *, uint32_t, void *) { return 0u; }, nullptr), 0u);
    EXPECT_EQ(q->reader.readerStat[MERGEQUE_RSTAT_EMPTY_READ].count, 28u);
    EXPECT_EQ(RIX_MergeQueSchedProc(q->reader.eventFd, 1, q), 1u);
    EXPECT_TRUE(rixtest::HasLine("merge queue wake Fail To Sched, errno=11"));
    EXPECT_EQ(g_drains, 2u);
    RIX_MergeQueDestory(q);
}

TEST_F(MergeQueTest, FailingCallbackStillEmptiesTheQueue)
{
    MergeQueCb *q = RIX_MergeQueCreate("cbfail", &para_);
    ASSERT_NE(q, nullptr);
    for (uint32_t k = 0; k < 3; ++k) {
        Write(q, k, k);
    }
    uint32_t seen = 0;
    auto failing = [](void *data, uint32_t size, void *ctx) {
        EXPECT_EQ(size, sizeof(Rec));
        EXPECT_EQ(static_cast<Rec *>(data)->key, *static_cast<uint32_t *>(ctx));
        ++*static_cast<uint32_t *>(ctx);
        return 1u;
    };
    EXPECT_EQ(RIX_MergeQueReadCallBack(q, 2, failing, &seen), 2u);
    EXPECT_EQ(RIX_MergeQueReadCallBack(q, 2, failing, &seen), 1u);
    EXPECT_TRUE(rixtest::HasLine("cbfail read 1 msgVec callBack proc failed!"));
    EXPECT_EQ(rixtest::CountContaining("cbfail read 2 msgVec callBack proc failed!"), 1u);
    EXPECT_EQ(q->reader.itemCnt, 0u);
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), 0u);
    RIX_MergeQueDestory(q);
}

TEST_F(MergeQueTest, WaterMarksReportStrictlyAlternatingWithHysteresis)
{
    MergeQueCb *q = RIX_MergeQueCreate("water", &para_);
    ASSERT_NE(q, nullptr);
    MergeQueMonitorAttr attr{5u, 5u, nullptr, Notify};
    EXPECT_EQ(RIX_MergeQueMonitorReg(q, &attr), 1u);
    EXPECT_TRUE(rixtest::HasLine("merge queue water MonitorReg failed, highWater(5) less than lowWater(5)."));
    EXPECT_EQ(RIX_MergeQueMonitorReg(q, nullptr), 1u);
    EXPECT_TRUE(rixtest::HasLine("MonitorReg failed, para is null, mqueHandle: 0, monitorAttr: 1."));
    attr.highWater = 10u;
    ASSERT_EQ(RIX_MergeQueMonitorReg(q, &attr), 0u);

    for (uint32_t k = 0; k < 10; ++k) {
        Write(q, k, 0);
    }
    EXPECT_TRUE(g_events.empty());
    Write(q, 10, 0);
    Write(q, 11, 0);
    for (uint32_t k = 0; k < 12; ++k) {
        Write(q, k, 1);  // merges never report
    }
    EXPECT_EQ(g_events, std::vector<uint32_t>{0});
    EXPECT_EQ(ReadKeys(q, 7).size(), 7u);  // 5 left: not below the low mark
    EXPECT_EQ(g_events.size(), 1u);
    EXPECT_EQ(ReadKeys(q, 1).size(), 1u);  // 4 left
    EXPECT_EQ(g_events, (std::vector<uint32_t>{0, 1}));
    EXPECT_EQ(ReadKeys(q, 4).size(), 4u);
    for (uint32_t k = 0; k < 11; ++k) {
        Write(q, k, 2);
    }
    EXPECT_EQ(g_events, (std::vector<uint32_t>{0, 1, 0}));
    EXPECT_EQ(q->queStat[MERGEQUE_QSTAT_OVER_HIGH_WATER].count, 2u);
    EXPECT_EQ(q->queStat[MERGEQUE_QSTAT_UNDER_LOW_WATER].count, 1u);
    RIX_MergeQueDestory(q);
}

TEST_F(MergeQueTest, BackPressHoldsUnitsUntilUnBackPress)
{
    g_drainMax = 32;
    MergeQueCb *q = RIX_MergeQueCreate("press", &para_);
    ASSERT_NE(q, nullptr);
    uint32_t para = 0;
    EXPECT_EQ(RIX_MergeQueUnBackPress(q, &para), 1u);
    EXPECT_TRUE(rixtest::HasLine("press has add epoll."));
    EXPECT_TRUE(rixtest::HasLine("merge queue press UnbackPress failed."));
    EXPECT_EQ(RIX_MergeQueBackPress(q, 77u), 0u);
    for (uint32_t k = 0; k < 5; ++k) {
        Write(q, k, k);
    }
    Write(q, 0, 9);
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(epFd_), 0u);
    EXPECT_EQ(RIX_MergeQueUnBackPress(q, &para), 0u);
    EXPECT_EQ(para, 77u);
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(epFd_), 1u);
    ASSERT_EQ(g_read.size(), 5u);
    EXPECT_EQ(g_read[0].val, 9u);
    EXPECT_EQ(q->reader.readerStat[MERGEQUE_RSTAT_BACKPRESS].count, 1u);
    EXPECT_EQ(q->reader.readerStat[MERGEQUE_RSTAT_UNBACKPRESS].count, 1u);
    EXPECT_EQ(RIX_MergeQueBackPress(nullptr, 0u), 1u);
    EXPECT_TRUE(rixtest::HasLine("merge queue BackPress failed, handle is null."));
    RIX_MergeQueDestory(q);
}

TEST_F(MergeQueTest, PrintedListFollowsNameOrderAndTextFitsTheBuffer)
{
    MergeQueCb *qs[3];
    const char *names[] = {"b_DAM", "a_FES", "a_DAM"};
    for (int i = 0; i < 3; ++i) {
        qs[i] = RIX_MergeQueCreate(names[i], &para_);
        ASSERT_NE(qs[i], nullptr);
    }
    EXPECT_EQ(Print(RIX_PrintMergeQueListAll),
              "------------------------\nIndex    MQ-1THD Name    \n------------------------\n"
              "0        a_DAM           \n1        a_FES           \n2        b_DAM           \n");

    const std::string fresh = [] {
        std::string b(8192, '\0');
        b.resize(RIX_PrintMergeQueInfo("a_FES", b.data(), 8192));
        return b;
    }();
    const std::string rowFmt = "%-28s %12u    --:--:--.---\n";
    char row[96];
    snprintf(row, sizeof row, rowFmt.c_str(), "Mque CurrCnt", 0u);
    EXPECT_NE(fresh.find(row), std::string::npos);
    snprintf(row, sizeof row, rowFmt.c_str(), "UnBackPress", 0u);
    EXPECT_NE(fresh.find(row), std::string::npos);
    EXPECT_EQ(fresh.find("MQUE-1THD-NAME : a_FES[MQUE]\n"), 0u);
    snprintf(row, sizeof row, "MQUE-1THD-INFO : MemPtNo [   3], DataSize [   8], HashSize [  64], EpFd [%4d]\n",
             epFd_);
    EXPECT_NE(fresh.find(row), std::string::npos);
    EXPECT_NE(fresh.find("Reader-INFO : EventFd ["), std::string::npos);

    // A short buffer: each line either fits whole (with its terminator) or is left out.
    for (uint32_t len : {1u, 40u, 300u, 1000u}) {
        std::string expect;
        size_t at = 0;
        while (at < fresh.size()) {
            size_t end = fresh.find('\n', at) + 1;
            if (end == at + 1) {  // a line that starts with a line end
                end = fresh.find('\n', end) + 1;
            }
            const std::string line = fresh.substr(at, end - at);
            if (expect.size() + line.size() < len) {
                expect += line;
            }
            at = end;
        }
        std::string buf(len, '\0');
        const uint32_t n = RIX_PrintMergeQueInfo("a_FES", buf.data(), len);
        EXPECT_EQ(std::string(buf.data(), n), expect) << len;
    }
    std::string untouched(16, 'u');
    EXPECT_EQ(RIX_PrintMergeQueInfo("none", untouched.data(), 16), 0u);
    EXPECT_EQ(untouched, std::string(16, 'u'));
    for (MergeQueCb *q : qs) {
        RIX_MergeQueDestory(q);
    }
    EXPECT_EQ(Print(RIX_PrintMergeQueListAll).size(), 25u + 26u + 25u);
}

TEST_F(MergeQueTest, StampsPrintAsLocalMonthDayTimeAndMilliseconds)
{
    struct tm t = {};
    t.tm_year = 2026 - 1900;
    t.tm_mon = 10;
    t.tm_mday = 16;
    t.tm_hour = 11;
    t.tm_min = 43;
    t.tm_sec = 21;
    t.tm_isdst = -1;
    const time_t sec = mktime(&t);
    MergeQueTimeStamp stamp{(static_cast<uint64_t>(sec) & ((uint64_t{1} << 44) - 1)) | (uint64_t{123456} << 44)};
    char out[32];
    EXPECT_STREQ(RIX_MergeQueTrans2Time(out, sizeof out, &stamp), "11-16 11:43:21.123");
    EXPECT_STREQ(RIX_MergeQueTrans2Time(out, 10, &stamp), "");
    stamp.packed = 0;
    EXPECT_STREQ(RIX_MergeQueTrans2Time(out, sizeof out, &stamp), "--:--:--.---");
    EXPECT_STREQ(RIX_MergeQueGetStatDesc(4), "MergeQue Unknown Error");
    EXPECT_STREQ(RIX_MergeQueGetReaderStatDesc(11), "MergeQue Reader Unknown Error");
    EXPECT_STREQ(RIX_MergeQueGetReaderStatDesc(6), "Empty Read");
}

}  // namespace
