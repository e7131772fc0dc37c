// An exact accumulator of doubles: every finite double is an integer multiple of 2^-1074
// below 2^1024, so a fixed-point integer of 70 limbs of 32 bits holds any sum of them
// exactly (with 140 bits of room for the count of terms). Sums on several ranks add limb
// by limb (MPI_SUM on the limbs), and the total is rounded to the nearest double once,
// ties to even: the result does not depend on the order of the terms or how they were
// split between ranks.
#pragma once

#include <mpi.h>

#include <cmath>
#include <cstdint>
#include <cstring>

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

class exact_sum {
 public:
  static constexpr int nb_limbs = 70;
  static constexpr std::int64_t limb_base = std::int64_t(1) << 32;

  void add(double v) {
    std::uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    const unsigned exponent = unsigned(bits >> 52) & 0x7FF;
    std::uint64_t mantissa = bits & ((std::uint64_t(1) << 52) - 1);
    if (exponent == 0x7FF) {  // infinity or NaN
      specials_[mantissa != 0 ? 0 : (bits >> 63) ? 2 : 1] += 1;
      return;
    }
    if (mantissa == 0 && exponent == 0) return;
    unsigned shift = 0;  // v = +-mantissa * 2^(shift - 1074)
    if (exponent != 0) mantissa |= std::uint64_t(1) << 52, shift = exponent - 1;
    const unsigned limb = shift / 32, offset = shift % 32;
    const std::uint64_t mask = 0xFFFFFFFFu;
    std::int64_t part[3];
    part[0] = std::int64_t((mantissa << offset) & mask);
    part[1] = std::int64_t(offset == 0 ? mantissa >> 32 : (mantissa >> (32 - offset)) & mask);
    part[2] = std::int64_t(offset == 0 ? 0 : mantissa >> (64 - offset));
    const bool negative = (bits >> 63) != 0;
    for (int k = 0; k < 3; ++k) limbs_[limb + k] += negative ? -part[k] : part[k];
    // Each limb moves by less than 2^32 per term: carry before 2^30 terms can add up.
    if (++pending_ == (1u << 30)) normalise();
  }

  /// Adds the sums of every rank of comm into this one on every rank (collective).
  void all_reduce(MPI_Comm comm) {
    normalise();
    std::int64_t local[nb_limbs + 3], total[nb_limbs + 3];
    std::memcpy(local, limbs_, sizeof limbs_);
    std::memcpy(local + nb_limbs, specials_, sizeof specials_);
    MPI_Allreduce(local, total, nb_limbs + 3, MPI_INT64_T, MPI_SUM, comm);
    std::memcpy(limbs_, total, sizeof limbs_);
    std::memcpy(specials_, total + nb_limbs, sizeof specials_);
    normalise();
  }

  /// The exact sum rounded to the nearest double, ties to even (NaN if a term was NaN
  /// or both infinities were added, an infinity if one was).
  double rounded() {
    if (specials_[0] != 0 || (specials_[1] != 0 && specials_[2] != 0)) return std::nan("");
    if (specials_[1] != 0) return HUGE_VAL;
    if (specials_[2] != 0) return -HUGE_VAL;
    normalise();
    std::int64_t magnitude[nb_limbs];
    const bool negative = limbs_[nb_limbs - 1] < 0;
    for (int i = 0; i < nb_limbs; ++i) magnitude[i] = negative ? -limbs_[i] : limbs_[i];
    normalise(magnitude);
    int top = nb_limbs - 1;
    while (top >= 0 && magnitude[top] == 0) --top;
    if (top < 0) return 0.0;
    int high = 31;
    while (!((magnitude[top] >> high) & 1)) --high;
    const int h = 32 * top + high;  // the highest bit set
    auto bit = [&magnitude](int b) { return b < 0 ? 0u : unsigned(magnitude[b / 32] >> (b % 32)) & 1u; };
    double result;
    if (h < 53) {  // exact: below 2^53 units of 2^-1074
      std::uint64_t m = 0;
      for (int b = h; b >= 0; --b) m = (m << 1) | bit(b);
      result = std::ldexp(double(m), -1074);
    } else {
      std::uint64_t m = 0;  // the 53 leading bits
      for (int b = h; b > h - 53; --b) m = (m << 1) | bit(b);
      const unsigned guard = bit(h - 53);
      bool sticky = false;
      for (int b = h - 54; b >= 0 && !sticky; --b) {
        if (b % 32 == 31 && magnitude[b / 32] == 0) {  // skip a whole zero limb
          b -= 31;
          continue;
        }
        sticky = bit(b) != 0;
      }
      if (guard && (sticky || (m & 1))) ++m;
      result = std::ldexp(double(m), h - 52 - 1074);
    }
    return negative ? -result : result;
  }

 private:
  // Carries so that every limb but the last is in [0, 2^32); the last holds the sign.
  static void normalise(std::int64_t* limbs) {
    for (int i = 0; i + 1 < nb_limbs; ++i) {
      const std::int64_t low = std::int64_t(std::uint64_t(limbs[i]) & 0xFFFFFFFFu);
      limbs[i + 1] += (limbs[i] - low) / limb_base;
      limbs[i] = low;
    }
  }
  void normalise() {
    normalise(limbs_);
    pending_ = 0;
  }

  std::int64_t limbs_[nb_limbs] = {};
  std::int64_t specials_[3] = {};  // NaN, +infinity, -infinity
  unsigned pending_ = 0;
};

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
