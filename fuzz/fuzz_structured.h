// Size-dependent inputs for the fuzz targets, and the oracles that judge their results.
//
// An input whose first byte is structured_marker describes a valid mesh by a few
// parameters instead of listing it: a box of up to 14 x 14 x 14 cells of one kind (so up
// to about 16,000 elements), jittered or not, numbered naturally, by parity (every
// quadrangle with one sum of node IDs) or by a random permutation spread over up to three
// times the nodes. The natural mesh is kept beside the numbered one, so that an oracle can
// check that a result is the natural one renumbered. Any failed check traps.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "box_mesh.h"
#include "crafted_numbering.h"
#include "fuzz_input.h"
#include "zel/tessel3d.h"

namespace tessel3d_fuzz {

constexpr std::uint8_t structured_marker = 0xA5;

inline bool is_structured(const std::uint8_t* data, std::size_t size) {
  return size > 0 && data[0] == structured_marker;
}

inline void require(bool condition) {
  if (!condition) __builtin_trap();
}

struct structured_mesh {
  tessel3d_test::box_kind kind;
  unsigned nx, ny, nz;
  bool jittered;
  tessel3d_test::box_mesh natural, mesh;  // mesh: natural renumbered by new_id
  std::vector<unsigned> new_id;
};

/// Reads the parameters after the marker. kinds: the allowed box kinds, chosen by a byte.
inline structured_mesh read_structured(byte_reader& in, std::initializer_list<tessel3d_test::box_kind> kinds,
                                       unsigned max_side = 14) {
  using tessel3d_test::box_kind;
  structured_mesh s;
  s.kind = *(kinds.begin() + in.below(static_cast<unsigned>(kinds.size())));
  s.nx = 1 + in.below(max_side), s.ny = 1 + in.below(max_side), s.nz = 1 + in.below(max_side);
  s.jittered = in.flag();
  s.natural = tessel3d_test::make_box(s.kind, s.nx, s.ny, s.nz, 1.0, 1.0, 1.0, s.jittered ? 0.2 : 0.0, 1 + in.byte());
  const std::size_t nodes = s.natural.coords.cols();
  switch (in.below(3)) {
    case 0:
      s.mesh.coords.copy(s.natural.coords);
      s.mesh.connect.copy(s.natural.connect);
      s.new_id.resize(nodes);
      for (std::size_t n = 0; n < nodes; ++n) s.new_id[n] = static_cast<unsigned>(n);
      break;
    case 1: {
      tessel3d_test::renumbered_mesh r = tessel3d_test::parity_numbering(s.natural, s.nx, s.ny, s.nz);
      s.mesh = r.mesh;
      s.new_id = r.new_id;
      break;
    }
    default: {
      const std::size_t total = nodes * (1 + in.below(3));
      std::vector<unsigned> ids(total);
      for (std::size_t n = 0; n < total; ++n) ids[n] = static_cast<unsigned>(n);
      tessel3d_test::random_stream random(in.word());
      for (std::size_t n = total; n > 1; --n) std::swap(ids[n - 1], ids[random.next() % n]);
      s.new_id.assign(ids.begin(), ids.begin() + nodes);
      s.mesh.coords.resize(3, total, 0.0);
      for (std::size_t n = 0; n < nodes; ++n)
        for (int d = 0; d < 3; ++d) s.mesh.coords(d, s.new_id[n]) = s.natural.coords(d, n);
      s.mesh.connect.copy(s.natural.connect);
      for (std::size_t j = 0; j < s.mesh.connect.cols(); ++j)
        for (std::size_t r = 0; r < s.mesh.connect.rows(); ++r)
          s.mesh.connect(r, j) = s.new_id[s.natural.connect(r, j)];
      break;
    }
  }
  return s;
}

/// The natural ID of every node of the numbered mesh (~0U for unused ones).
inline std::vector<unsigned> old_ids(const structured_mesh& s) {
  std::vector<unsigned> old(s.mesh.coords.cols(), ~0U);
  for (std::size_t n = 0; n < s.new_id.size(); ++n) old[s.new_id[n]] = static_cast<unsigned>(n);
  return old;
}

/// A result computed on the numbered mesh equals the one on the natural mesh renumbered:
/// node IDs of the inputs mapped by new_id, new nodes shifted by the difference of the
/// node counts, the new nodes' coordinates bit for bit.
inline void require_renumbered(const structured_mesh& s, const zel::dense2D<unsigned>& natural_out,
                               const zel::dense2D<double>& natural_coords, const zel::dense2D<unsigned>& out,
                               const zel::dense2D<double>& coords) {
  const std::size_t nb_n = s.natural.coords.cols(), nb_c = s.mesh.coords.cols();
  require(out.rows() == natural_out.rows() && out.cols() == natural_out.cols());
  require(coords.cols() - nb_c == natural_coords.cols() - nb_n);
  for (std::size_t j = 0; j < out.cols(); ++j)
    for (std::size_t r = 0; r < out.rows(); ++r) {
      const unsigned id = natural_out(r, j);
      require(out(r, j) == (id == ~0U ? id : id < nb_n ? s.new_id[id] : unsigned(id - nb_n + nb_c)));
    }
  for (std::size_t t = 0; t < natural_coords.cols() - nb_n; ++t)
    for (int d = 0; d < 3; ++d) require(coords(d, nb_c + t) == natural_coords(d, nb_n + t));
}

/// Signed total volume, NaN when the call fails.
inline double total_volume(const zel::dense2D<double>& coords, const zel::dense2D<unsigned>& connect) {
  double v = 0;
  return zel::tessel3d::volume(coords, connect, v) == 0 ? v : std::nan("");
}

/// Volumes that must agree up to rounding.
inline void require_close(double a, double b) {
  require(std::fabs(a - b) <= 1e-9 * (1.0 + std::fabs(a) + std::fabs(b)));
}

/// The exact volume of the box is known: always for tetrahedra and pyramids (their faces
/// stay plane under jitter), for wedges and hexahedra when not jittered.
inline bool box_volume_known(const structured_mesh& s) {
  return !s.jittered || s.kind == tessel3d_test::box_kind::TH4 || s.kind == tessel3d_test::box_kind::PY5;
}

/// The connectivity a call takes: pyramids in the 8-row mixed layout.
inline zel::dense2D<unsigned> solid_layout(const structured_mesh& s, const zel::dense2D<unsigned>& connect) {
  return s.kind == tessel3d_test::box_kind::PY5 ? tessel3d_test::to_mixed8(connect) : connect;
}

}  // namespace tessel3d_fuzz
