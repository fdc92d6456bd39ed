// Bucket index without a division: a mask when the bucket count is a power of two, otherwise
// Lemire's remainder by multiplication (a 64-bit reciprocal, exact for every 32-bit hash and
// divisor). The reciprocal is computed once per table; 32-bit ARM has no divide instruction
// to fall back on, and its library routine costs some forty instructions a call.
#ifndef RIX_PLAT_FASTMOD_H
#define RIX_PLAT_FASTMOD_H

#include <cstdint>

namespace rixplat {

struct FastMod {
    uint64_t m;  // 0 when the divisor is a power of two
    uint32_t d;
    uint32_t mask;  // d - 1
};

constexpr FastMod MakeFastMod(uint32_t d)
{
    const bool pow2 = d != 0u && (d & (d - 1u)) == 0u;
    return FastMod{pow2 ? 0u : UINT64_MAX / d + 1u, d, d - 1u};
}

// h % f.d
inline uint32_t ModOf(const FastMod &f, uint32_t h)
{
    if (f.m == 0u) {
        return h & f.mask;
    }
    const uint64_t low = f.m * h;
#if defined(__SIZEOF_INT128__)
    return static_cast<uint32_t>((static_cast<unsigned __int128>(low) * f.d) >> 64);
#else
    // High word of the 96-bit product low * d, from two 32x32 multiplications.
    const uint64_t lo = static_cast<uint64_t>(static_cast<uint32_t>(low)) * f.d;
    const uint64_t hi = (low >> 32) * f.d;
    return static_cast<uint32_t>((hi + (lo >> 32)) >> 32);
#endif
}

}  // namespace rixplat

#endif
