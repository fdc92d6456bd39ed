// Statistic tables, packed time stamps and their text.
#include <sys/time.h>
#include <ctime>

#include <array>

#include "mergeque/mque_internal.h"

namespace {

constexpr uint32_t kSecBits = 44u;
constexpr uint64_t kSecMask = (uint64_t{1} << kSecBits) - 1u;
constexpr uint32_t kUsecPerMsec = 1000u;
constexpr uint32_t kYearPrefix = 5u;  // "YYYY-" is not printed
constexpr const char *kUnsetStamp = "--:--:--.---";

template <size_t N>
const char *FindDesc(const MergeQueStatDesc (&table)[N], uint32_t id, const char *unknown)
{
    for (const MergeQueStatDesc &row : table) {
        if (row.id == id) {
            return row.desc;
        }
    }
    return unknown;
}

}  // namespace

extern "C" {

ASORCH_API MergeQueStatDesc g_mergeQueStatDesc[MERGEQUE_QSTAT_NUM] = {
    {MERGEQUE_QSTAT_MAX_CONFLICT, "MergeQue MaxConflict", 1u},
    {MERGEQUE_QSTAT_HISTORY_MAX_CNT, "MergeQue HistoryMaxCnt", 1u},
    {MERGEQUE_QSTAT_OVER_HIGH_WATER, "MergeQue OverHighWater", 1u},
    {MERGEQUE_QSTAT_UNDER_LOW_WATER, "MergeQue UnderLowWater", 1u},
};

// The three rows counted once per entry are not stamped: a clock read per entry is too dear.
ASORCH_API MergeQueStatDesc g_mergeQueReaderStatDesc[MERGEQUE_RSTAT_NUM] = {
    {MERGEQUE_RSTAT_SUCC_MERGE, "Success Merge", 0u},        {MERGEQUE_RSTAT_FAIL_MERGE, "Fail Merge", 1u},
    {MERGEQUE_RSTAT_SUCC_WRITE, "Success Write", 0u},        {MERGEQUE_RSTAT_SUCC_READ, "Success Read", 0u},
    {MERGEQUE_RSTAT_FAIL_WRITE, "Fail Write", 1u},           {MERGEQUE_RSTAT_FAIL_READ, "Fail Read", 1u},
    {MERGEQUE_RSTAT_EMPTY_READ, "Empty Read", 1u},           {MERGEQUE_RSTAT_WRITE_NOTIFY_ERR, "Write Notify Err", 1u},
    {MERGEQUE_RSTAT_READ_NOTIFY_ERR, "Read Notify Err", 1u}, {MERGEQUE_RSTAT_BACKPRESS, "BackPress", 1u},
    {MERGEQUE_RSTAT_UNBACKPRESS, "UnBackPress", 1u},
};

ASORCH_API const char *RIX_MergeQueGetStatDesc(uint32_t id)
{
    return FindDesc(g_mergeQueStatDesc, id, "MergeQue Unknown Error");
}

ASORCH_API const char *RIX_MergeQueGetReaderStatDesc(uint32_t id)
{
    return FindDesc(g_mergeQueReaderStatDesc, id, "MergeQue Reader Unknown Error");
}

ASORCH_API void RIX_MergeQueSetTimeStamp(MergeQueTimeStamp *stamp)
{
    if (stamp == nullptr) {
        return;
    }
    struct timeval tv = {};
    (void)gettimeofday(&tv, nullptr);
    const auto sec = static_cast<uint64_t>(static_cast<int64_t>(tv.tv_sec)) & kSecMask;
    const auto usec = static_cast<uint64_t>(tv.tv_usec);
    stamp->packed = sec | (usec << kSecBits);
}

ASORCH_API char *RIX_MergeQueTrans2Time(char *out, uint32_t outLen, const MergeQueTimeStamp *stamp)
{
    if (out == nullptr || outLen == 0u) {
        return out;
    }
    if (stamp == nullptr || stamp->packed == 0u) {
        if (sprintf_s(out, outLen, "%s", kUnsetStamp) <= 0) {
            out[0] = '\0';
        }
        return out;
    }
    // Sign-extend the 44-bit seconds.
    const int64_t sec = static_cast<int64_t>(stamp->packed << (64u - kSecBits)) >> (64u - kSecBits);
    const auto usec = static_cast<uint32_t>(stamp->packed >> kSecBits);
    const auto t = static_cast<time_t>(sec);
    struct tm local = {};
    std::array<char, 32> work{};
    if (static_cast<int64_t>(t) != sec || localtime_r(&t, &local) == nullptr ||
        strftime(work.data(), work.size(), "%Y-%m-%d %H:%M:%S", &local) <= kYearPrefix) {
        out[0] = '\0';
        return out;
    }
    if (sprintf_s(out, outLen, "%s.%03u", work.data() + kYearPrefix, usec / kUsecPerMsec) <= 0) {
        out[0] = '\0';
    }
    return out;
}

}  // extern "C"
