// libFuzzer target: the merge queue against a reference model. The input is a program of
// operations on up to kSlots queues: create, write with and without merge, the four read
// entry points (some writing to the queue from inside their callbacks), back-press and
// release, water marks, the reader's eventfd stepped through a hand-run epoll loop,
// printing, destroy, and injected failures of the platform. After every step the queue's
// list, counts, statistics, monitor events and every block it holds must match the model;
// at the end every queue is destroyed and nothing may be left.
#include <dirent.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "mque_model.h"
#include "rix_platform_test.h"

namespace {

using namespace mqfuzz;

constexpr uint32_t kMaxOps = 400;

int EpollSet()
{
    static const int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0) {
        std::abort();
    }
    return fd;
}

// Open descriptors of the process: a queue's eventfd must be closed with the queue, also
// when its creation failed half-way.
uint32_t OpenFds()
{
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        std::abort();
    }
    uint32_t n = 0;
    while (readdir(dir) != nullptr) {
        ++n;
    }
    closedir(dir);
    return n;
}

// ---- Operations ----

const char *const kNames[] = {"mq.a", "mq.b", "mq.c", "mq.d"};

void OpCreate(FuzzedDataProvider &in, uint32_t s)
{
    Model &m = g_slot[s];
    if (m.q != nullptr) {
        return;
    }
    const char *name = kNames[in.ConsumeIntegralInRange<uint32_t>(0, 3)];
    MergeQueCreatePara para{Alloc,
                            Free,
                            0u,
                            kMinData + in.ConsumeIntegralInRange<uint32_t>(0, 52),
                            1u + in.ConsumeIntegralInRange<uint32_t>(0, 7),
                            HashKey,
                            CmpKey,
                            EpollSet(),
                            KeyOf,
                            nullptr,
                            nullptr};
    const bool merge = in.ConsumeBool();
    const bool sched = in.ConsumeBool();
    para.mergeFunc = merge ? MergeFn : nullptr;
    para.schedProc = sched ? SchedProc : nullptr;
    // Invalid parameters and failures of the platform: no queue, nothing held.
    bool valid = true;
    static const char *const kFailOps[] =
        {"LITE_HASH_CreateWithLock", "eventfd_s", "RIX_EPOLL_Add", "strcpy_s", "memset_s", "ZUL_AVL3_Insert_Or_Find"};
    switch (in.ConsumeIntegralInRange<uint32_t>(0, 15)) {
        case 0:
            para.hashSize = 0;
            valid = false;
            break;
        case 1:
            para.dataSize = UINT16_MAX;
            valid = false;
            break;
        case 2:
            para.epFd = -1;
            valid = false;
            break;
        case 3:
            para.cmpFunc = nullptr;
            valid = false;
            break;
        case 4:
            para.memFree = nullptr;
            valid = false;
            break;
        case 5:
            RIX_TEST_FailNth(kFailOps[in.ConsumeIntegralInRange<uint32_t>(0, 5)], 1);
            valid = false;
            break;
        default:
            break;
    }
    bool taken = false;
    for (const Model &o : g_slot) {
        taken = taken || (o.q != nullptr && o.name == name);
    }
    MergeQueCb *q = RIX_MergeQueCreate(name, &para);
    const std::string dup = std::string("[RIX_MERGE_QUE Create] creat Fail because find ") + name + " exist!";
    const uint32_t dupLines = RIX_TEST_LogFind(dup.c_str());
    RIX_TEST_Reset();
    RIX_TEST_LogCapture(1);
    if (valid && taken) {
        Expect(dupLines == 1, "line of a taken name", s, dupLines, 1);
    }
    if (!valid || taken) {
        Expect(q == nullptr, "create that must fail", s);
        return;
    }
    Expect(q != nullptr, "create", s);
    m = Model{};
    m.q = q;
    m.name = name;
    m.dataSize = para.dataSize;
    m.hashSize = para.hashSize;
    m.merge = merge;
    m.sched = sched;
    m.schedBatch = 1u + in.ConsumeIntegralInRange<uint32_t>(0, 3);
}

Bytes NewData(FuzzedDataProvider &in, const Model &m, uint32_t key)
{
    Bytes data(m.dataSize);
    SetWord(data.data(), 0, key);
    SetWord(data.data(), 4, in.ConsumeIntegral<uint32_t>());
    SetWord(data.data(), 8, in.ConsumeIntegralInRange<uint32_t>(0, 1000));
    const uint8_t fill = in.ConsumeIntegral<uint8_t>();
    for (uint32_t i = kMinData; i < m.dataSize; ++i) {
        data[i] = static_cast<uint8_t>(fill + i);
    }
    return data;
}

void OpWrite(FuzzedDataProvider &in, uint32_t s, bool direct)
{
    Model &m = g_slot[s];
    const uint32_t key = in.ConsumeIntegralInRange<uint32_t>(0, kKeys - 1);
    const int32_t moveTail = in.ConsumeBool() ? 1 : 0;
    const uint32_t fail = in.ConsumeIntegralInRange<uint32_t>(0, 15);
    const Bytes data = NewData(in, m, key);
    const bool isNew = m.pending.find(key) == m.pending.end();
    if (direct && !isNew) {
        return;  // a new write of a pending key is not a use the queue offers
    }
    // Failures of a new entry's allocation, copy or linking, and of a merge's copy.
    static const char *const kFailOps[] = {"LITE_HASH_NewData", "memcpy_s", "LITE_HASH_AddNode"};
    const bool inject = isNew ? fail < 3 : (!direct && fail == 3);
    if (inject) {
        RIX_TEST_FailNth(isNew ? kFailOps[fail] : "memcpy_s", 1);
    }
    const uint32_t keyWord = key;  // the key apart from the data, as the orchestrator hands it
    Bytes buf = data;
    SetMergeSize(m.dataSize);
    const uint32_t ret = direct ? RIX_MergeQueNewWrite(m.q, &keyWord, buf.data())
                                : RIX_MergeQueWrite(m.q, &keyWord, buf.data(), moveTail);
    if (inject) {
        RIX_TEST_Reset();
        RIX_TEST_LogCapture(1);
        Expect(ret == ASORCH_ERR, "write with a failed step", s, ret, ASORCH_ERR);
        ModelCount(m, MERGEQUE_RSTAT_FAIL_WRITE);
        if (!isNew && m.merge) {
            // The merge function ran and the copy did not: both keep what it left them, and the
            // pending entry keeps its place.
            Bytes merged = data;
            MergeData(merged.data(), m.pending[key].first.data(), m.dataSize);
            Expect(buf == merged, "writer's data after a failed merge", s);
        }
        return;
    }
    Expect(ret == ASORCH_OK, "write", s, ret, ASORCH_OK);
    Expect(buf == ModelWrite(m, key, moveTail, data), "writer's data after the write", s);
}

// Most callback reads write nothing; some write from a few of their callbacks.
std::vector<Plan> NewPlans(FuzzedDataProvider &in, const Model &m)
{
    std::vector<Plan> plans;
    if (in.ConsumeIntegralInRange<uint32_t>(0, 3) != 0) {
        return plans;
    }
    for (uint32_t n = in.ConsumeIntegralInRange<uint32_t>(1, 4); n != 0; --n) {
        const uint32_t key = in.ConsumeIntegralInRange<uint32_t>(0, kKeys - 1);
        const int32_t moveTail = in.ConsumeBool() ? 1 : 0;
        plans.push_back({key, moveTail, NewData(in, m, key)});
    }
    return plans;
}

void OpRead(FuzzedDataProvider &in, uint32_t s, uint32_t style)
{
    Model &m = g_slot[s];
    const uint32_t maxCnt = in.ConsumeIntegralInRange<uint32_t>(0, 9);
    const uint32_t failEvery = in.ConsumeIntegralInRange<uint32_t>(0, 3);
    std::vector<Bytes> got;
    std::vector<Plan> plans;
    uint32_t ret = 0;
    bool full = true;
    switch (style) {
        case 0: {  // into a buffer, then notify and monitor
            std::vector<uint8_t> out(static_cast<size_t>(maxCnt) * m.dataSize + 1, 0xA5);
            ret = RIX_MergeQueRead(m.q, out.data(), maxCnt);
            for (uint32_t i = 0; i < ret && i < maxCnt; ++i) {
                got.emplace_back(out.begin() + i * m.dataSize, out.begin() + (i + 1) * m.dataSize);
            }
            Expect(out.back() == 0xA5, "read past the buffer", s);
            break;
        }
        case 1: {  // the bare buffer read, entries of a chosen stride
            const uint32_t size = in.ConsumeBool() ? m.dataSize : 4u;
            std::vector<uint8_t> out(static_cast<size_t>(maxCnt) * size + 1, 0xA5);
            ret = RIX_MergeQueReadBase(m.q, size, out.data(), maxCnt);
            for (uint32_t i = 0; i < ret && i < maxCnt; ++i) {
                got.emplace_back(out.begin() + i * size, out.begin() + (i + 1) * size);
            }
            Expect(out.back() == 0xA5, "read past the buffer", s);
            full = false;
            std::vector<Bytes> want = ModelRead(m, maxCnt, false);
            Expect(ret == want.size(), "read count", s, ret, want.size());
            for (size_t i = 0; i < want.size(); ++i) {
                want[i].resize(size);
                Expect(got[i] == want[i], "read data", s, i);
            }
            return;
        }
        case 2: {  // to a callback, then notify and monitor
            plans = NewPlans(in, m);
            ReadCtx ctx{&m, &got, failEvery, 0, &plans};
            ret = RIX_MergeQueReadCallBack(m.q, maxCnt, ReadCb, &ctx);
            break;
        }
        default: {  // to a callback only
            plans = NewPlans(in, m);
            ReadCtx ctx{&m, &got, failEvery, 0, &plans};
            ret = RIX_MergeQueReadToCallBack(m.q, maxCnt, ReadCb, &ctx);
            full = false;
            break;
        }
    }
    // The full entry points take nothing for a zero count (the bare ones count it as no read).
    std::vector<Bytes> want = (full && maxCnt == 0) ? std::vector<Bytes>{} : ModelRead(m, maxCnt, full, &plans);
    Expect(ret == want.size(), "read count", s, ret, want.size());
    Expect(got == want, "read data", s, got.size(), want.size());
}

void OpBackPress(FuzzedDataProvider &in, uint32_t s)
{
    Model &m = g_slot[s];
    const uint32_t para = in.ConsumeIntegral<uint32_t>();
    Expect(RIX_MergeQueBackPress(m.q, para) == ASORCH_OK, "back-press", s);
    m.epollReg = false;
    m.backPressPara = para;
    ModelCount(m, MERGEQUE_RSTAT_BACKPRESS);
}

void OpUnBackPress(FuzzedDataProvider &in, uint32_t s)
{
    Model &m = g_slot[s];
    const bool withPara = in.ConsumeBool();
    const bool inject = in.ConsumeIntegralInRange<uint32_t>(0, 7) == 0;
    if (inject) {
        RIX_TEST_FailNth("RIX_EPOLL_Add", 1);
    }
    uint32_t para = 0x5A5A5A5Au;
    const uint32_t ret = RIX_MergeQueUnBackPress(m.q, withPara ? &para : nullptr);
    const bool ok = !m.epollReg && !inject;
    RIX_TEST_Reset();
    RIX_TEST_LogCapture(1);
    Expect(ret == (ok ? ASORCH_OK : ASORCH_ERR), "release of back-press", s, ret, ok);
    Expect(para == (ok && withPara ? m.backPressPara : 0x5A5A5A5Au), "back-press parameter", s, para);
    if (ok) {
        m.epollReg = true;
        ModelCount(m, MERGEQUE_RSTAT_UNBACKPRESS);
    }
}

void OpMonitor(FuzzedDataProvider &in, uint32_t s)
{
    Model &m = g_slot[s];
    MergeQueMonitorAttr attr{in.ConsumeIntegralInRange<uint32_t>(0, 12), in.ConsumeIntegralInRange<uint32_t>(0, 12), &m,
                             in.ConsumeIntegralInRange<uint32_t>(0, 7) == 0 ? nullptr : Notify};
    const bool ok = attr.highWater > attr.lowWater && attr.flowCtrlNotify != nullptr;
    const uint32_t ret = RIX_MergeQueMonitorReg(m.q, &attr);
    Expect(ret == (ok ? ASORCH_OK : ASORCH_ERR), "monitor registration", s, ret, ok);
    if (ok) {
        m.monitor = true;
        m.high = attr.highWater;
        m.low = attr.lowWater;
        m.overLoad = false;
    }
}

// The reader's wake-ups: each eventfd unit runs the drain once, and a read that leaves
// entries behind adds a unit.
void OpStep()
{
    uint32_t wantRuns = 0;
    for (Model &m : g_slot) {
        if (m.q == nullptr || !m.epollReg) {
            continue;
        }
        while (m.units != 0) {
            --m.units;
            ++wantRuns;
            if (m.sched) {
                std::vector<Bytes> got = ModelRead(m, m.schedBatch, true);
                m.wantDelivered.insert(m.wantDelivered.end(), got.begin(), got.end());
            }
        }
    }
    const uint32_t runs = RIX_TEST_EpollRunUntilIdle(EpollSet());
    Expect(runs == wantRuns, "drain wake-ups", 0, runs, wantRuns);
}

void OpDestroy(uint32_t s)
{
    Model &m = g_slot[s];
    RIX_TEST_LogClear();
    const std::string line = "[RIX_MERGE_QUE Destory] " + m.name + " reader list is not empty!";
    const bool pending = !m.order.empty();
    RIX_MergeQueDestory(m.q);
    Expect(RIX_TEST_LogFind(line.c_str()) == (pending ? 1u : 0u), "destroy line", s, RIX_TEST_LogFind(line.c_str()),
           pending);
    m = Model{};
}

void OpPrint(uint32_t s)
{
    Model &m = g_slot[s];
    std::vector<char> buf(4096);
    const uint32_t n = RIX_PrintMergeQueInfo(m.name.c_str(), buf.data(), static_cast<uint32_t>(buf.size()));
    Expect(n < buf.size() && std::strstr(buf.data(), m.name.c_str()) != nullptr, "printed queue", s, n);
    const uint32_t all = RIX_PrintMergeQueListAll(buf.data(), static_cast<uint32_t>(buf.size()));
    Expect(all < buf.size(), "printed list", s, all);
    for (const Model &o : g_slot) {
        Expect(o.q == nullptr || std::strstr(buf.data(), o.name.c_str()) != nullptr, "queue in the list", s);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    RIX_TEST_Reset();
    RIX_TEST_LogCapture(1);
    (void)EpollSet();
    static const uint32_t fds = OpenFds();
    FuzzedDataProvider in(data, size);
    for (uint32_t op = 0; op < kMaxOps && in.remaining_bytes() != 0; ++op) {
        const uint32_t code = in.ConsumeIntegralInRange<uint32_t>(0, 15);
        const uint32_t s = in.ConsumeIntegralInRange<uint32_t>(0, kSlots - 1);
        RIX_TEST_LogClear();
        if (code == 0) {
            OpCreate(in, s);
        } else if (code == 13) {
            OpStep();
        } else if (g_slot[s].q == nullptr) {
            continue;
        } else if (code <= 4) {
            OpWrite(in, s, code == 4);  // writes are the common case
        } else if (code <= 8) {
            OpRead(in, s, code - 5);
        } else if (code == 9) {
            OpBackPress(in, s);
        } else if (code == 10) {
            OpUnBackPress(in, s);
        } else if (code == 11) {
            OpMonitor(in, s);
        } else if (code == 12) {
            OpDestroy(s);
        } else if (code == 14) {
            OpPrint(s);
        } else {
            OpWrite(in, s, false);
        }
        CheckAll();
    }
    for (uint32_t s = 0; s < kSlots; ++s) {
        if (g_slot[s].q != nullptr) {
            OpDestroy(s);
        }
    }
    CheckAll();
    Expect(g_live.empty(), "blocks left after destroy", 0, g_live.size(), 0);
    Expect(OpenFds() == fds, "descriptors left after destroy", 0, OpenFds(), fds);
    RIX_TEST_Reset();
    return 0;
}
