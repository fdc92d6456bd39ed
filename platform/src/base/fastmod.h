// Bucket index without a division: Lemire's remainder by multiplication (a 64-bit reciprocal,
// exact for every 32-bit hash and divisor), computed once per table. 32-bit ARM has no divide
// instruction to fall back on, and its library routine costs some forty instructions a call;
// there the multiplication takes several steps too, so a power of two is masked instead. With
// a 64x64 multiply (x86-64) the product is as short as the mask test and needs no branch.
#ifndef RIX_PLAT_FASTMOD_H
#define RIX_PLAT_FASTMOD_H

#include <cstdint>

namespace rixplat {

#if defined(__SIZEOF_INT128__)
#define RIX_PLAT_FASTMOD_ALWAYS_MULTIPLY 1
#else
#define RIX_PLAT_FASTMOD_ALWAYS_MULTIPLY 0
#endif

struct FastMod {
    uint64_t m;     // 2^64 / d rounded up (0 for d = 1); 0 for any power of two when masking
    uint64_t d;     // 64 bits wide, so that the multiplication reads it from memory
    uint32_t mask;  // d - 1
};

constexpr FastMod MakeFastMod(uint32_t d)
{
    const bool pow2 = d != 0u && (d & (d - 1u)) == 0u;
    // For a power of two d > 1, UINT64_MAX / d + 1 is 2^64 / d exactly, and the product below
    // is then exact as well; for d = 1 it wraps to 0, whose products are all 0 = h % 1.
    const uint64_t m = (pow2 && !RIX_PLAT_FASTMOD_ALWAYS_MULTIPLY) || d == 0u ? 0u : UINT64_MAX / d + 1u;
    return FastMod{m, d, d - 1u};
}

// h % f.d, as wide as a pointer: indexing with it then needs no widening.
inline uintptr_t ModOfIndex(const FastMod &f, uint32_t h)
{
#if RIX_PLAT_FASTMOD_ALWAYS_MULTIPLY
    const uint64_t low = f.m * h;
    return static_cast<uintptr_t>((static_cast<unsigned __int128>(low) * f.d) >> 64);
#else
    if (f.m == 0u) {
        return h & f.mask;
    }
    // High word of the 96-bit product low * d, from two 32x32 multiplications.
    const uint64_t low = f.m * h;
    const uint32_t d = static_cast<uint32_t>(f.d);
    const uint64_t lo = static_cast<uint64_t>(static_cast<uint32_t>(low)) * d;
    const uint64_t hi = (low >> 32) * d;
    return static_cast<uint32_t>((hi + (lo >> 32)) >> 32);
#endif
}

// h % f.d
inline uint32_t ModOf(const FastMod &f, uint32_t h)
{
    return static_cast<uint32_t>(ModOfIndex(f, h));
}

}  // namespace rixplat

#endif
