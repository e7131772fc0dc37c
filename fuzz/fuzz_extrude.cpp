// Fuzz target: the five extrusion families, short and long forms, counts and sizes.
#include "fuzz_input.h"
#include "fuzz_structured.h"
#include "zel/tessel3d.h"

namespace t3 = zel::tessel3d;

namespace {

using tessel3d_fuzz::require;

// A planar grid of quadrangles or triangles over the unit square, normals up, numbered
// at random, swept along z: every solid has the sign of the sweep and the layers fill
// the swept volume.
void structured_extrude(tessel3d_fuzz::byte_reader& in) {
  const unsigned nx = 1 + in.below(30), ny = 1 + in.below(30), layers = 1 + in.below(8);
  const bool triangles = in.flag();
  const double height = (in.flag() ? -1 : 1) * (0.25 + in.below(8) / 4.0);
  const std::size_t nodes = std::size_t(nx + 1) * (ny + 1), spread = nodes * (1 + in.below(3));
  std::vector<unsigned> id(spread);
  for (std::size_t n = 0; n < spread; ++n) id[n] = static_cast<unsigned>(n);
  tessel3d_test::random_stream random(in.word());
  for (std::size_t n = spread; n > 1; --n) std::swap(id[n - 1], id[random.next() % n]);
  zel::dense2D<double> coords(3, spread, 0.0);
  for (unsigned j = 0; j <= ny; ++j)
    for (unsigned i = 0; i <= nx; ++i) {
      coords(0, id[j * (nx + 1) + i]) = double(i) / nx;
      coords(1, id[j * (nx + 1) + i]) = double(j) / ny;
    }
  zel::dense2D<unsigned> surface(triangles ? 3 : 4, std::size_t(nx) * ny * (triangles ? 2 : 1));
  std::size_t column = 0;
  for (unsigned j = 0; j < ny; ++j)
    for (unsigned i = 0; i < nx; ++i) {
      const unsigned a = id[j * (nx + 1) + i], b = id[j * (nx + 1) + i + 1], c = id[(j + 1) * (nx + 1) + i + 1],
                     d = id[(j + 1) * (nx + 1) + i];
      if (triangles) {
        surface(0, column) = a, surface(1, column) = b, surface(2, column++) = c;
        surface(0, column) = a, surface(1, column) = c, surface(2, column++) = d;
      } else {
        surface(0, column) = a, surface(1, column) = b, surface(2, column) = c, surface(3, column++) = d;
      }
    }
  zel::dense2D<unsigned> solids;
  require(t3::extrude_translate(coords, surface, zel::vector_fixed<double, 3>(0, 0, height), layers, solids) == 0);
  require(solids.cols() == surface.cols() * layers);
  tessel3d_fuzz::require_close(tessel3d_fuzz::total_volume(coords, solids), height);
  for (std::size_t j = 0; j < solids.cols(); ++j)
    require(tessel3d_fuzz::total_volume(coords, solids.sub_matrix(0, j, solids.rows(), 1)) * height > 0);
}

}  // namespace

TESSEL3D_FUZZ_TARGET(extrude) {
  if (tessel3d_fuzz::is_structured(data, size)) {
    tessel3d_fuzz::byte_reader structured(data + 1, size - 1);
    structured_extrude(structured);
    return 0;
  }
  tessel3d_fuzz::byte_reader in(data, size);
  auto coords = in.coords(24);
  const unsigned nb_nodes = static_cast<unsigned>(coords.cols());
  auto surface = in.connectivity({3, 4}, nb_nodes, 12);
  auto solids = in.connectivity({6, 8, 0}, nb_nodes, 3);
  auto edges = in.connectivity({2}, nb_nodes, 6);
  auto lateral = in.connectivity({4, 0}, nb_nodes, 2);
  auto cap = in.connectivity({3, 4, 0}, nb_nodes, 2);
  const std::size_t entry_columns[] = {coords.cols(), solids.cols(), lateral.cols(), cap.cols()};
  // Layer counts stay small enough for the run to be quick; sizes may be anything.
  const unsigned layers = in.below(6);
  const double h0 = in.real(), h1 = in.real();
  const bool even = in.flag(), long_form = in.flag();
  const auto a = in.point(), b = in.point(), c = in.point();
  int status = 0;
  switch (in.below(6)) {
    case 0:
      status = long_form ? t3::extrude_translate(coords, surface, a, layers, solids, edges, lateral, cap)
                         : t3::extrude_translate(coords, surface, a, h0, h1, even, solids);
      break;
    case 1:
      status = long_form ? t3::extrude_rotate(coords, surface, a, b, layers, solids, edges, lateral, cap)
                         : t3::extrude_rotate(coords, surface, a, b, h0, h1, even, solids);
      break;
    case 2:
      status = long_form ? t3::extrude_spiral(coords, surface, a, b, c, layers, solids, edges, lateral, cap)
                         : t3::extrude_spiral(coords, surface, a, b, c, h0, h1, even, solids);
      break;
    case 3: {
      auto normals = in.coords(24);
      status = long_form ? t3::extrude_normal(coords, surface, normals, layers, solids, edges, lateral, cap)
                         : t3::extrude_normal(coords, surface, in.real(), h0, h1, even, solids);
      break;
    }
    case 4:
      status = long_form ? t3::extrude_normal(coords, surface, in.real(), layers, solids, edges, lateral, cap)
                         : t3::extrude_normal(coords, surface, in.real(), layers, solids);
      break;
    default: {
      auto line = in.ids(nb_nodes, 6);
      if (in.flag()) {
        auto metrics = in.matrix<double>(in.flag() ? 6 : 5, in.below(7), [&](std::size_t) { return in.real(); });
        status = t3::extrude_line(coords, surface, line, a, metrics, solids, edges, lateral, cap);
      } else {
        auto scales = in.reals(6);
        status = t3::extrude_line(coords, surface, line, a, scales, solids, edges, lateral, cap);
      }
      break;
    }
  }
  // A failed call leaves every output with its entry column count.
  if (status < 0 && (coords.cols() != entry_columns[0] || solids.cols() != entry_columns[1] ||
                     lateral.cols() != entry_columns[2] || cap.cols() != entry_columns[3]))
    __builtin_trap();
  return 0;
}
