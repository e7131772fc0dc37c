// Structured box meshes for tests and benchmarks: an nx x ny x nz grid of cells over
// [0, lx] x [0, ly] x [0, lz], each cell an H8, two W6, six TH4 (split along the cell
// diagonal from its corner 0 to its corner 6, the same way in every cell, so the mesh
// is conforming) or six PY5 (one per cell face, apex at an extra node in the cell
// centre). Every element is positively oriented. Jitter moves the interior nodes
// randomly by up to jitter x the cell size in each direction (keep it below about 0.25
// for the elements to stay positive); the boundary stays flat, so a tetrahedral or
// pyramidal mesh keeps the box volume exactly. (Jittered W6 and H8 cells have bent
// quadrangle faces, which a volume measured by a split into tetrahedra cuts along
// different diagonals on either side, so their total is close to, not equal to, the box.)
#pragma once

#include <cstdint>

#include "zel/matrix.h"
#include "zel/tessel_elements.h"

namespace tessel3d_test {

enum class box_kind { TH4, PY5, W6, H8 };

struct box_mesh {
  zel::dense2D<double> coords;     // 3 x #nodes
  zel::dense2D<unsigned> connect;  // 4, 5, 6 or 8 rows
};

// Deterministic generator (splitmix64): the same seed gives the same numbers everywhere.
struct random_stream {
  std::uint64_t state;
  explicit random_stream(std::uint64_t seed) : state(seed) {}
  std::uint64_t next() {
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  double uniform() { return static_cast<double>(next() >> 11) * (1.0 / 9007199254740992.0); }  // [0, 1)
  double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
};

// The box kinds are the solid kinds of the element records, in the same order.
inline zel::tessel::solid_kind solid_kind_of(box_kind kind) { return zel::tessel::solid_kind(kind); }
static_assert(unsigned(box_kind::TH4) == zel::tessel::kind_TH4 && unsigned(box_kind::PY5) == zel::tessel::kind_PY5 &&
                  unsigned(box_kind::W6) == zel::tessel::kind_W6 && unsigned(box_kind::H8) == zel::tessel::kind_H8,
              "box kinds follow the solid kinds");

inline unsigned box_rows(box_kind kind) { return zel::tessel::solid_records[solid_kind_of(kind)].nb_vertices; }

inline unsigned box_elements_per_cell(box_kind kind) {
  static const unsigned per_cell[] = {6, 6, 2, 1};
  return per_cell[static_cast<int>(kind)];
}

inline box_mesh make_box(box_kind kind, unsigned nx, unsigned ny, unsigned nz, double lx = 1.0, double ly = 1.0,
                         double lz = 1.0, double jitter = 0.0, std::uint64_t seed = 1) {
  box_mesh mesh;
  const unsigned px = nx + 1, py = ny + 1, pz = nz + 1;
  const std::size_t grid_nodes = std::size_t(px) * py * pz;
  const std::size_t cells = std::size_t(nx) * ny * nz;
  const std::size_t nodes = grid_nodes + (kind == box_kind::PY5 ? cells : 0);
  mesh.coords.resize(3, nodes);
  const double hx = lx / nx, hy = ly / ny, hz = lz / nz;
  random_stream random(seed);
  double* xyz = mesh.coords.data();
  for (unsigned k = 0; k < pz; ++k)
    for (unsigned j = 0; j < py; ++j)
      for (unsigned i = 0; i < px; ++i, xyz += 3) {
        xyz[0] = i * hx;
        xyz[1] = j * hy;
        xyz[2] = k * hz;
        if (jitter > 0) {
          if (i > 0 && i < nx) xyz[0] += random.uniform(-jitter, jitter) * hx;
          if (j > 0 && j < ny) xyz[1] += random.uniform(-jitter, jitter) * hy;
          if (k > 0 && k < nz) xyz[2] += random.uniform(-jitter, jitter) * hz;
        }
      }
  auto node = [&](unsigned i, unsigned j, unsigned k) { return unsigned((std::size_t(k) * py + j) * px + i); };

  const unsigned rows = box_rows(kind);
  mesh.connect.resize(rows, cells * box_elements_per_cell(kind));
  unsigned* column = mesh.connect.data();
  std::size_t cell = 0;
  for (unsigned k = 0; k < nz; ++k)
    for (unsigned j = 0; j < ny; ++j)
      for (unsigned i = 0; i < nx; ++i, ++cell) {
        // Corners in the H8 order: bottom 0-1-2-3 counter-clockwise seen from above, top 4-7.
        const unsigned c[8] = {
            node(i, j, k),     node(i + 1, j, k),     node(i + 1, j + 1, k),     node(i, j + 1, k),
            node(i, j, k + 1), node(i + 1, j, k + 1), node(i + 1, j + 1, k + 1), node(i, j + 1, k + 1)};
        auto emit = [&](std::initializer_list<unsigned> local) {
          unsigned r = 0;
          for (unsigned l : local) column[r++] = c[l];
          column += rows;
        };
        switch (kind) {
          case box_kind::H8: emit({0, 1, 2, 3, 4, 5, 6, 7}); break;
          case box_kind::W6:
            emit({0, 1, 2, 4, 5, 6});
            emit({0, 2, 3, 4, 6, 7});
            break;
          case box_kind::TH4:
            // Six tetrahedra around the diagonal 0-6, each (b, a, 0, 6) ordered so that
            // (p0 - p3) . ((p1 - p3) x (p2 - p3)) > 0.
            emit({2, 1, 0, 6});
            emit({3, 2, 0, 6});
            emit({7, 3, 0, 6});
            emit({4, 7, 0, 6});
            emit({5, 4, 0, 6});
            emit({1, 5, 0, 6});
            break;
          case box_kind::PY5: {
            const unsigned apex = unsigned(grid_nodes + cell);
            double* centre = &mesh.coords(0, apex);
            for (int d = 0; d < 3; ++d) {
              double sum = 0;
              for (unsigned l = 0; l < 8; ++l) sum += mesh.coords(d, c[l]);
              centre[d] = sum / 8;
            }
            // The hexahedron's faces, whose normals point into the cell, bottom and top
            // first: each is the base of a positively oriented pyramid.
            static const unsigned face_order[6] = {4, 5, 2, 3, 0, 1};
            for (unsigned h : face_order) {
              const unsigned* f = zel::tessel::solid_records[zel::tessel::kind_H8].faces[h];
              column[0] = c[f[0]], column[1] = c[f[1]], column[2] = c[f[2]], column[3] = c[f[3]];
              column[4] = apex;
              column += rows;
            }
            break;
          }
        }
      }
  return mesh;
}

// The same elements in the 8-row mixed layout (absent rows ABSENT).
inline zel::dense2D<unsigned> to_mixed8(const zel::dense2D<unsigned>& connect) {
  zel::dense2D<unsigned> mixed(8, connect.cols(), zel::tessel::ABSENT);
  for (std::size_t j = 0; j < connect.cols(); ++j)
    for (std::size_t i = 0; i < connect.rows(); ++i) mixed(i, j) = connect(i, j);
  return mixed;
}

// A copy of m inside a larger buffer: the returned view has leading dimension
// rows + extra_rows, the rows beyond the view holding `guard`.
template <class T>
zel::dense2D<T> padded_view(const zel::dense2D<T>& m, std::size_t extra_rows, const T& guard) {
  zel::dense2D<T> big(m.rows() + extra_rows, m.cols(), guard);
  for (std::size_t j = 0; j < m.cols(); ++j)
    for (std::size_t i = 0; i < m.rows(); ++i) big(i, j) = m(i, j);
  return big.sub_matrix(0, 0, m.rows(), m.cols());
}

}  // namespace tessel3d_test
