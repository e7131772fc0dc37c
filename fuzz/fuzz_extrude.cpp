// Fuzz target: the five extrusion families, short and long forms, counts and sizes.
#include "fuzz_input.h"
#include "zel/tessel3d.h"

namespace t3 = zel::tessel3d;

TESSEL3D_FUZZ_TARGET(extrude) {
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
