#pragma once
// Exact rational numbers for durations, and the exact product-quotient that rescales a time.
#include <cstdint>
#include <numeric>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding {

// value * multiplier / divisor in 128-bit arithmetic, truncated toward zero: never overflows in the
// product, whatever the 64-bit operands. The divisor must not be 0.
constexpr std::int64_t mulDiv(std::int64_t value, std::int64_t multiplier, std::int64_t divisor) {
    return static_cast<std::int64_t>(static_cast<__int128>(value) * multiplier / divisor);
}
constexpr std::uint64_t mulDivU(std::uint64_t value, std::uint64_t multiplier, std::uint64_t divisor) {
    return static_cast<std::uint64_t>(static_cast<unsigned __int128>(value) * multiplier / divisor);
}

// Converts a time from one timescale to another exactly.
constexpr std::int64_t rescale(std::int64_t value, std::uint64_t fromTimescale, std::uint64_t toTimescale) {
    return static_cast<std::int64_t>(static_cast<__int128>(value) * static_cast<__int128>(toTimescale) /
                                     static_cast<__int128>(fromTimescale));
}

template <typename T>
class Fraction {
    static_assert(std::is_same_v<T, std::int64_t> || std::is_same_v<T, std::uint64_t>,
                  "a fraction is of 64-bit integers");

public:
    constexpr Fraction() = default;
    constexpr Fraction(T numerator, T denominator) : num(numerator), den(denominator) {}

    // Both divided by their greatest common divisor.
    constexpr Fraction reduced() const {
        const T divisor = std::gcd(num, den);
        if (divisor == 0) return *this;
        if constexpr (std::is_signed_v<T>) {
            // Keep the sign on the numerator.
            T n = num / divisor;
            T d = den / divisor;
            if (d < 0) {
                n = -n;
                d = -d;
            }
            return {n, d};
        } else {
            return {num / divisor, den / divisor};
        }
    }

    constexpr T floor() const {
        T q = num / den;
        if constexpr (std::is_signed_v<T>) {
            if ((num % den != 0) && ((num < 0) != (den < 0))) --q;
        }
        return q;
    }
    constexpr T ceil() const {
        T q = num / den;
        if (num % den != 0) {
            if constexpr (std::is_signed_v<T>) {
                if ((num < 0) == (den < 0)) ++q;
            } else {
                ++q;
            }
        }
        return q;
    }
    // (num + den / 2) / den in integer division.
    constexpr T round() const { return (num + den / 2) / den; }

    // Equality by cross products, in 128 bits.
    friend constexpr bool operator==(const Fraction& a, const Fraction& b) {
        using Wide = std::conditional_t<std::is_signed_v<T>, __int128, unsigned __int128>;
        return static_cast<Wide>(a.num) * b.den == static_cast<Wide>(b.num) * a.den;
    }

    T num = 0;
    T den = 1;
};

// The least positive fraction that each given fraction divides a whole number of times.
// Fails with "Cannot compute LCM of no fraction" on an empty list.
template <typename T>
Fraction<T> computeLCM(const std::vector<Fraction<T>>& fractions) {
    if (fractions.empty()) throw CorvaneException("Cannot compute LCM of no fraction");
    T commonDen = 1;
    for (const auto& f : fractions) commonDen = std::lcm(commonDen, f.reduced().den);
    T numeratorLcm = 0;
    for (const auto& f : fractions) {
        const auto r = f.reduced();
        T scaled = r.num * (commonDen / r.den);
        if constexpr (std::is_signed_v<T>) {
            if (scaled < 0) scaled = -scaled;
        }
        numeratorLcm = numeratorLcm == 0 ? scaled : std::lcm(numeratorLcm, scaled);
    }
    return Fraction<T>(numeratorLcm, commonDen).reduced();
}

}  // namespace tvrn::encoding
