// Division by a 32-bit count fixed at registration, without a division: ARMv7 has no divide
// instruction, and its routine costs some forty instructions a call. Not exported.
#ifndef RIX_AS_CORE_DIVISOR_H
#define RIX_AS_CORE_DIVISOR_H

#include <cstdint>

namespace asorch {

struct Divisor {
    uint64_t magic;  // Lemire's fastmod multiplier, 2^64 / d rounded up (0 for powers of two)
    uint32_t d;      // 0: not prepared
    uint8_t shift;   // log2(d) for powers of two
    uint8_t pow2;
};

// Registration time only: the one 64-bit division is paid here.
inline Divisor MakeDivisor(uint32_t d)
{
    if (d == 0u) {
        return Divisor{0u, 0u, 0u, 0u};
    }
    if ((d & (d - 1u)) == 0u) {
        return Divisor{0u, d, static_cast<uint8_t>(__builtin_ctz(d)), 1u};
    }
    return Divisor{UINT64_MAX / d + 1u, d, 0u, 0u};
}

// High 64 bits of a 64x32-bit product, from two 32x32->64 multiplies.
inline uint64_t MulHi64x32(uint64_t a, uint32_t b)
{
    return ((a >> 32) * b + (((a & 0xFFFFFFFFu) * b) >> 32)) >> 32;
}

// x % div.d, bit for bit.
inline uint32_t Mod(uint32_t x, const Divisor &div)
{
    if (div.pow2 != 0u) {
        return x & (div.d - 1u);
    }
    return static_cast<uint32_t>(MulHi64x32(div.magic * x, div.d));
}

// x / div.d, bit for bit.
inline uint32_t Div(uint32_t x, const Divisor &div)
{
    if (div.pow2 != 0u) {
        return x >> div.shift;
    }
    // The product's top word is the quotient: magic * x < 2^96 and the error stays below 1.
    const uint64_t lo = (div.magic & 0xFFFFFFFFu) * x;
    const uint64_t hi = (div.magic >> 32) * x + (lo >> 32);
    return static_cast<uint32_t>(hi >> 32);
}

// x / d and x % d for a count nobody prepared: shifts and subtracts, for paths the library's
// own tables (power-of-two counts, prepared sizes) never take. d must not be 0.
inline uint32_t DivUnprepared(uint32_t x, uint32_t d, uint32_t *rem)
{
    if ((d & (d - 1u)) == 0u) {
        *rem = x & (d - 1u);
        return x >> __builtin_ctz(d);
    }
    uint64_t r = 0u;
    uint32_t q = 0u;
    for (int bit = 31; bit >= 0; --bit) {
        r = (r << 1) | ((x >> bit) & 1u);
        q <<= 1;
        if (r >= d) {
            r -= d;
            q |= 1u;
        }
    }
    *rem = static_cast<uint32_t>(r);
    return q;
}

inline uint32_t ModUnprepared(uint32_t x, uint32_t d)
{
    uint32_t rem = 0u;
    (void)DivUnprepared(x, d, &rem);
    return rem;
}

}  // namespace asorch

#endif
