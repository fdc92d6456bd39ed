// Diagnostic text of the queues, written line by line into a caller's buffer: a line that
// does not fit is left out and the next one is tried at the same place.
#include <cstdarg>

#include <array>

#include "mergeque/mque_internal.h"

namespace {

constexpr const char *kDashes24 = "------------------------\n";
constexpr const char *kDashes58 = "----------------------------------------------------------\n";
constexpr const char *kStatRow = "%-28s %12u    %s\n";
constexpr const char *kStatHead = "\n%-28s %12s    TimeStamp\n";
constexpr uint32_t kStampText = 32u;

class LinePrinter {
public:
    LinePrinter(char *buf, uint32_t len) : buf_(buf), len_(len) {}

    void Line(const char *format, ...) __attribute__((format(printf, 2, 3)))
    {
        if (off_ >= len_) {
            return;
        }
        va_list args;
        va_start(args, format);
        const int n = vsprintf_s(buf_ + off_, len_ - off_, format, args);
        va_end(args);
        if (n > 0) {
            off_ += static_cast<uint32_t>(n);
        }
    }

    // A section printed by another function into the rest of the buffer.
    template <typename Fn>
    void Section(Fn fn)
    {
        if (off_ < len_) {
            off_ += fn(buf_ + off_, len_ - off_);
        }
    }

    void StatRow(const char *desc, const MergeQueStat &stat)
    {
        std::array<char, kStampText> stamp{};
        Line(kStatRow, desc, stat.count, RIX_MergeQueTrans2Time(stamp.data(), kStampText, &stat.stamp));
    }

    uint32_t Written() const { return off_; }

private:
    char *buf_;
    uint32_t len_;
    uint32_t off_ = 0u;
};

}  // namespace

extern "C" {

ASORCH_API uint32_t RIX_PrintMergeQueListAll(char *buf, uint32_t len)
{
    if (buf == nullptr || len == 0u) {
        return 0u;
    }
    LinePrinter p(buf, len);
    p.Line("%s", kDashes24);
    p.Line("%-8s %-16s\n", "Index", "MQ-1THD Name");
    p.Line("%s", kDashes24);
    MergeQueGlbCb &g = g_rixMergeQueGlbCb;
    if (pthread_mutex_lock(&g.nameTreeMutex) != 0) {
        return p.Written();
    }
    // A tree never initialised is empty and has no compare function yet.
    if (g.nameTree.root != nullptr) {
        uint32_t index = 0u;
        for (void *node = ZUL_AVL3_First(&g.nameTree, &g.nameTreeInfo); node != nullptr;
             node = ZUL_AVL3_Next(static_cast<ZUL_AVL3_NODE *>(node), &g.nameTreeInfo)) {
            p.Line("%-8u %-16s\n", index, static_cast<const MergeQueCb *>(node)->name);
            ++index;
        }
    }
    (void)pthread_mutex_unlock(&g.nameTreeMutex);
    return p.Written();
}

ASORCH_API uint32_t RIX_PrintMergeQueInfo(const char *name, char *buf, uint32_t len)
{
    if (name == nullptr || buf == nullptr || len == 0u) {
        return 0u;
    }
    const MergeQueCb *q = RIX_MergeQueNameTreeFind(name);
    if (q == nullptr) {
        return 0u;
    }
    LinePrinter p(buf, len);
    p.Section([q](char *b, uint32_t l) { return RIX_PrintMergeQueBaseInfo(q, b, l); });
    p.Section([q](char *b, uint32_t l) { return RIX_PrintMergeQueStat(q, b, l); });
    p.Section([q](char *b, uint32_t l) { return RIX_PrintMergeQueReaderInfo(&q->reader, b, l); });
    return p.Written();
}

ASORCH_API uint32_t RIX_PrintMergeQueBaseInfo(const MergeQueCb *q, char *buf, uint32_t len)
{
    if (q == nullptr || buf == nullptr) {
        return 0u;
    }
    LinePrinter p(buf, len);
    p.Line("MQUE-1THD-NAME : %s[%s]\n", q->name, "MQUE");
    p.Line("MQUE-1THD-INFO : MemPtNo [%4u], DataSize [%4u], HashSize [%4u], EpFd [%4d]\n", q->para.memPtNo,
           q->para.dataSize, q->para.hashSize, q->para.epFd);
    p.Line("MQUE-1THD-MONI : HighWater [%4u], LowWater [%4u], OverLoad [%4u]\n", q->highWater, q->lowWater,
           q->overLoad);
    return p.Written();
}

ASORCH_API uint32_t RIX_PrintMergeQueStat(const MergeQueCb *q, char *buf, uint32_t len)
{
    if (q == nullptr || buf == nullptr) {
        return 0u;
    }
    LinePrinter p(buf, len);
    p.Line(kStatHead, "Mque-1THD StatType", "Count");
    p.Line("%s", kDashes58);
    for (uint32_t id = 0u; id < MERGEQUE_QSTAT_NUM; ++id) {
        p.StatRow(RIX_MergeQueGetStatDesc(id), q->queStat[id]);
        if (id == MERGEQUE_QSTAT_HISTORY_MAX_CNT) {
            const MergeQueStat current = {q->hash == nullptr ? 0u : LITE_HASH_GetHashCnt(q->hash), {0u}};
            p.StatRow("Mque CurrCnt", current);
        }
    }
    return p.Written();
}

ASORCH_API uint32_t RIX_PrintMergeQueReaderInfo(const MergeQueReader *reader, char *buf, uint32_t len)
{
    if (reader == nullptr || buf == nullptr) {
        return 0u;
    }
    LinePrinter p(buf, len);
    p.Line("\n%s", kDashes58);
    p.Section([reader](char *b, uint32_t l) { return RIX_PrintMergeQueReaderBaseInfo(reader, b, l); });
    p.Line(kStatHead, "Reader StatType", "Count");
    p.Line("%s", kDashes58);
    for (uint32_t id = 0u; id < MERGEQUE_RSTAT_NUM; ++id) {
        p.StatRow(RIX_MergeQueGetReaderStatDesc(id), reader->readerStat[id]);
    }
    return p.Written();
}

ASORCH_API uint32_t RIX_PrintMergeQueReaderBaseInfo(const MergeQueReader *reader, char *buf, uint32_t len)
{
    if (reader == nullptr || buf == nullptr) {
        return 0u;
    }
    LinePrinter p(buf, len);
    p.Line("Reader-ItemCnt : %4u\n", reader->itemCnt);
    p.Line("Reader-INFO : EventFd [%4d/%u]\n", reader->eventFd, reader->epollReg);
    return p.Written();
}

}  // extern "C"
