// Turns a fuzzer's bytes into the arguments of the library's functions: matrices of any
// shape and leading dimension, node IDs that are mostly valid but sometimes ~0U, equal
// to the node count or huge, coordinates that are mostly ordinary but sometimes NaN,
// infinite, huge or tiny, and counts at their limits. Exhausted input reads as zeros.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "zel/matrix.h"
#include "zel/tessel.h"

namespace tessel3d_fuzz {

// Requests above 64 MiB get nullptr, as an exhausted machine would answer them: hostile
// sizes then exercise the library's -199 paths instead of the machine's memory.
inline void* capped_alloc(std::size_t bytes) {
  return bytes > (std::size_t(64) << 20) ? nullptr : std::malloc(bytes ? bytes : 1);
}
inline void capped_free(void* memory) { std::free(memory); }
inline const bool cap_installed = (zel::set_vector_num_allocator(&capped_alloc, &capped_free), true);

class byte_reader {
 public:
  byte_reader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  std::uint8_t byte() { return position_ < size_ ? data_[position_++] : 0; }
  bool flag() { return byte() & 1; }
  std::uint32_t word() {
    std::uint32_t w = 0;
    for (int i = 0; i < 4; ++i) w = (w << 8) | byte();
    return w;
  }
  /// A value in [0, n) (0 when n is 0).
  unsigned below(unsigned n) { return n ? byte() % n : 0; }
  bool exhausted() const { return position_ >= size_; }

  /// A count: usually small, sometimes at a limit.
  unsigned count(unsigned usual_max) {
    const std::uint8_t selector = byte();
    if (selector < 240) return usual_max ? selector % (usual_max + 1) : 0;
    static const unsigned limits[] = {0u, 1u, 2u, 64u, 1000u, 65535u, 0x7FFFFFFFu, 0xFFFFFFFFu};
    return limits[selector % 8];
  }

  double real() {
    const std::uint8_t selector = byte();
    if (selector < 224) return (static_cast<int>(selector) - 112) / 16.0 + byte() / 4096.0;
    static const double specials[] = {0.0,
                                      -0.0,
                                      std::numeric_limits<double>::quiet_NaN(),
                                      std::numeric_limits<double>::infinity(),
                                      -std::numeric_limits<double>::infinity(),
                                      std::numeric_limits<double>::max(),
                                      -std::numeric_limits<double>::max(),
                                      std::numeric_limits<double>::min(),
                                      std::numeric_limits<double>::denorm_min(),
                                      1e154,
                                      1e-154,
                                      1e300,
                                      1.0,
                                      0.5,
                                      2.0,
                                      1e-12};
    return specials[selector % 16];
  }

  zel::vector_fixed<double, 3> point() { return {real(), real(), real()}; }

  /// A node ID for a mesh of nb_nodes nodes: mostly valid, sometimes not.
  unsigned id(unsigned nb_nodes) {
    const std::uint8_t selector = byte();
    if (selector < 232 && nb_nodes) return byte() % nb_nodes;
    static const unsigned odd[] = {~0U, ~0U, 0u, 1u, ~0U - 1, 0x80000000u, 0u, 0u};
    if ((selector & 7) == 6) return nb_nodes;
    if ((selector & 7) == 7) return nb_nodes + 1;
    return odd[selector & 7];
  }

  /// A rows x cols matrix, as a view with leading dimension rows + (0, 1 or 2) whose
  /// extra rows hold garbage that a correct walk never reads.
  template <class T, class Fill>
  zel::dense2D<T> matrix(std::size_t rows, std::size_t cols, Fill fill) {
    const std::size_t extra = below(3);
    zel::dense2D<T> big(rows + extra, cols, T(7));
    zel::dense2D<T> view = big.sub_matrix(0, 0, rows, cols);
    for (std::size_t j = 0; j < cols; ++j)
      for (std::size_t i = 0; i < rows; ++i) view(i, j) = fill(i);
    return view;
  }

  /// Coordinates: 3 rows usually (2 or 4 sometimes), up to max_nodes columns.
  zel::dense2D<double> coords(unsigned max_nodes) {
    const std::uint8_t selector = byte();
    const std::size_t rows = selector < 230 ? 3 : (selector & 1 ? 2 : 4);
    const std::size_t cols = below(max_nodes + 1);
    return matrix<double>(rows, cols, [&](std::size_t) { return real(); });
  }

  /// A connectivity with one of the given row counts (or any count now and then).
  zel::dense2D<unsigned> connectivity(std::initializer_list<std::size_t> rows_choices, unsigned nb_nodes,
                                      unsigned max_cols) {
    const std::uint8_t selector = byte();
    std::size_t rows = *(rows_choices.begin() + selector % rows_choices.size());
    if (selector >= 248) rows = selector % 30;
    const std::size_t cols = below(max_cols + 1);
    const bool mixed_padding = flag();
    return matrix<unsigned>(rows, cols, [&](std::size_t i) {
      // Mixed layouts: pad the tail of a column with ~0U now and then.
      if (mixed_padding && i >= 3 && (byte() & 3) == 0) return ~0U;
      return id(nb_nodes);
    });
  }

  zel::dense1D<unsigned, 8> ids(unsigned nb, unsigned max_size) {
    zel::dense1D<unsigned, 8> v(below(max_size + 1));
    for (std::size_t i = 0; i < v.size(); ++i) v[i] = id(nb);
    return v;
  }

  zel::dense1D<double, 8> reals(unsigned max_size) {
    zel::dense1D<double, 8> v(below(max_size + 1));
    for (std::size_t i = 0; i < v.size(); ++i) v[i] = real();
    return v;
  }

  zel::element_type type() { return static_cast<zel::element_type>(below(27)); }  // 25, 26 are invalid

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t position_ = 0;
};

}  // namespace tessel3d_fuzz

// Each target defines its body with TESSEL3D_FUZZ_TARGET(name); the fuzzing build turns it
// into LLVMFuzzerTestOneInput, the test build into a function the corpus test calls.
#ifdef TESSEL3D_FUZZ_IN_TESTS
#define TESSEL3D_FUZZ_TARGET(name) int tessel3d_fuzz_##name(const std::uint8_t* data, std::size_t size)
#else
#define TESSEL3D_FUZZ_TARGET(name) extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
#endif
