// Bounded memory and string functions with the runtime-constraint rules of TR 24731-1.
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/op_hit.h"
#include "rix_safe.h"

namespace {

constexpr size_t kRsizeMax = SIZE_MAX >> 1;
constexpr int kInjected = -1;

bool Overlap(const void *a, size_t aLen, const void *b, size_t bLen)
{
    auto pa = reinterpret_cast<uintptr_t>(a);
    auto pb = reinterpret_cast<uintptr_t>(b);
    return pa < pb + bLen && pb < pa + aLen;
}

// count bytes at a and at b do not overlap: |a - b| >= count, in one unsigned compare that
// takes count <= kRsizeMax. Says no for count 0 unless a == b; the checked path takes those.
inline bool Apart(const void *a, const void *b, size_t count)
{
    auto pa = reinterpret_cast<uintptr_t>(a);
    auto pb = reinterpret_cast<uintptr_t>(b);
    return pa - pb + (count - 1) >= 2 * count - 1;
}

// Every check in turn; taken when the fast path's combined test fails.
__attribute__((noinline, cold)) int MemcpyChecked(void *dest, size_t destMax, const void *src, size_t count)
{
    if (rixplat::HitFast(rixplat::Op_memcpy_s)) {
        return kInjected;
    }
    if (dest == nullptr || destMax > kRsizeMax) {
        return EINVAL;
    }
    if (src == nullptr || count > destMax || Overlap(dest, count, src, count)) {
        std::memset(dest, 0, destMax);
        return src == nullptr ? EINVAL : ERANGE;
    }
    if (count != 0) {
        std::memcpy(dest, src, count);
    }
    return 0;
}

__attribute__((noinline, cold)) int MemsetChecked(void *dest, size_t destMax, int c, size_t count)
{
    if (rixplat::HitFast(rixplat::Op_memset_s)) {
        return kInjected;
    }
    if (dest == nullptr || destMax > kRsizeMax) {
        return EINVAL;
    }
    if (count > destMax) {
        std::memset(dest, c, destMax);
        return ERANGE;
    }
    std::memset(dest, c, count);
    return 0;
}

__attribute__((noinline)) int CopyLarge(void *dest, const void *src, size_t count)
{
    std::memcpy(dest, src, count);
    return 0;
}

// Keys, records and message vectors are a few dozen bytes: copied inline in at most four
// overlapping 16-byte moves (the buffers are apart), which costs less than the call into the
// C library.
inline int CopySmall(unsigned char *d, const unsigned char *s, size_t n)
{
    if (n - 16u > 48u) [[unlikely]] {
        return CopyLarge(d, s, n);
    }
    std::memcpy(d, s, 16);
    std::memcpy(d + n - 16, s + n - 16, 16);
    if (n > 32) {
        std::memcpy(d + 16, s + 16, 16);
        std::memcpy(d + n - 32, s + n - 32, 16);
    }
    return 0;
}

// A violation leaves an empty string wherever the destination can hold one.
int StrViolation(char *dest, size_t destMax, int err)
{
    if (dest != nullptr && destMax != 0 && destMax <= kRsizeMax) {
        dest[0] = '\0';
    }
    return err;
}

int FormatInto(char *dest, size_t destMax, const char *format, va_list args)
{
    if (dest == nullptr || destMax == 0 || destMax > kRsizeMax) {
        return -1;
    }
    if (format == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    int n = std::vsnprintf(dest, destMax, format, args);
    // Refused whole rather than cut: a truncated name or log line is worse than none.
    if (n < 0 || static_cast<size_t>(n) >= destMax) {
        dest[0] = '\0';
        return -1;
    }
    return n;
}

}  // namespace

using rixplat::HitFast;

extern "C" {

int memcpy_s(void *dest, size_t destMax, const void *src, size_t count)
{
    // Valid arguments, the usual case, cost a few compares on top of the copy; call counting
    // and injection stay on it (Counted fails only when a thread is new or a failure is armed).
    if (dest != nullptr && src != nullptr && count <= destMax && destMax <= kRsizeMax && Apart(dest, src, count) &&
        rixplat::CountedFast(rixplat::Op_memcpy_s)) [[likely]] {
        return CopySmall(static_cast<unsigned char *>(dest), static_cast<const unsigned char *>(src), count);
    }
    return MemcpyChecked(dest, destMax, src, count);
}

int memset_s(void *dest, size_t destMax, int c, size_t count)
{
    if (dest != nullptr && count <= destMax && destMax <= kRsizeMax && rixplat::CountedFast(rixplat::Op_memset_s))
        [[likely]] {
        std::memset(dest, c, count);
        return 0;
    }
    return MemsetChecked(dest, destMax, c, count);
}

int strcpy_s(char *dest, size_t destMax, const char *src)
{
    if (HitFast(rixplat::Op_strcpy_s)) {
        return StrViolation(dest, destMax, kInjected);
    }
    if (dest == nullptr || destMax == 0 || destMax > kRsizeMax) {
        return EINVAL;
    }
    if (src == nullptr) {
        return StrViolation(dest, destMax, EINVAL);
    }
    size_t len = strnlen(src, destMax);
    if (len >= destMax || Overlap(dest, destMax, src, len + 1)) {
        return StrViolation(dest, destMax, ERANGE);
    }
    std::memcpy(dest, src, len + 1);
    return 0;
}

int strcat_s(char *dest, size_t destMax, const char *src)
{
    if (HitFast(rixplat::Op_strcat_s)) {
        return StrViolation(dest, destMax, kInjected);
    }
    if (dest == nullptr || destMax == 0 || destMax > kRsizeMax) {
        return EINVAL;
    }
    if (src == nullptr) {
        return StrViolation(dest, destMax, EINVAL);
    }
    size_t have = strnlen(dest, destMax);
    if (have == destMax) {
        return StrViolation(dest, destMax, EINVAL);  // destination not terminated
    }
    size_t room = destMax - have;
    size_t len = strnlen(src, room);
    if (len >= room || Overlap(dest, destMax, src, len + 1)) {
        return StrViolation(dest, destMax, ERANGE);
    }
    std::memcpy(dest + have, src, len + 1);
    return 0;
}

int vsprintf_s(char *dest, size_t destMax, const char *format, va_list args)
{
    if (HitFast(rixplat::Op_vsprintf_s)) {
        StrViolation(dest, destMax, 0);
        return kInjected;
    }
    return FormatInto(dest, destMax, format, args);
}

int sprintf_s(char *dest, size_t destMax, const char *format, ...)
{
    if (HitFast(rixplat::Op_sprintf_s)) {
        StrViolation(dest, destMax, 0);
        return kInjected;
    }
    va_list args;
    va_start(args, format);
    int n = FormatInto(dest, destMax, format, args);
    va_end(args);
    return n;
}

}  // extern "C"
