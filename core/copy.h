// Plain copies of lengths the caller has already checked; not exported.
#ifndef RIX_AS_CORE_COPY_H
#define RIX_AS_CORE_COPY_H

#include <cstdint>
#include <cstring>

namespace asorch {

// Keys and records are a few dozen bytes: up to 64 bytes are moved inline in overlapping
// 16-byte pieces, which costs less than the call into the C library. The buffers are apart.
inline void CopyBytes(void *dst, const void *src, uint32_t n)
{
    auto *d = static_cast<uint8_t *>(dst);
    const auto *s = static_cast<const uint8_t *>(src);
    if (n >= 16u && n <= 64u) {
        std::memcpy(d, s, 16);
        std::memcpy(d + n - 16u, s + n - 16u, 16);
        if (n > 32u) {
            std::memcpy(d + 16, s + 16, 16);
            std::memcpy(d + n - 32u, s + n - 32u, 16);
        }
        return;
    }
    std::memcpy(d, s, n);
}

}  // namespace asorch

#endif
