// Fuzz target: duplication of the nodes of an internal surface.
#include "fuzz_input.h"
#include "fuzz_structured.h"
#include "zel/tessel3d.h"

namespace {

using tessel3d_fuzz::require;

// The nodes of a plane of faces inside a valid hexahedral box: as many nodes are added
// as the plane holds, the volume stays, the elements of exactly one layer take the new
// nodes, and the result is the natural one renumbered.
void structured_surface(tessel3d_fuzz::byte_reader& in) {
  const auto s = tessel3d_fuzz::read_structured(in, {tessel3d_test::box_kind::H8});
  if (s.nz < 2) return;
  const std::size_t layer = std::size_t(s.nx) * s.ny, first = layer * (1 + in.below(s.nz - 1));
  zel::dense2D<double> coords[2];
  zel::dense2D<unsigned> connect[2];
  int added[2];
  for (int numbered = 0; numbered < 2; ++numbered) {
    const tessel3d_test::box_mesh& m = numbered ? s.mesh : s.natural;
    zel::dense2D<unsigned> neighbors, surface(4, layer);
    zel::dense1D<unsigned, 8> node_element, excluded;
    require(zel::tessel::get_neighbors(m.connect, zel::H8, neighbors) == 0);
    require(zel::tessel::get_node_element(m.connect, static_cast<unsigned>(m.coords.cols()), node_element) == 0);
    for (std::size_t j = 0; j < layer; ++j)
      for (unsigned i = 0; i < 4; ++i) surface(i, j) = m.connect(i, first + j);  // bottom faces 0 1 2 3
    require(coords[numbered].copy(m.coords) && connect[numbered].copy(m.connect));
    added[numbered] = zel::tessel3d::duplicate_surface_nodes(coords[numbered], connect[numbered], neighbors,
                                                             node_element, surface, excluded, true, false, zel::H8);
  }
  require(added[0] == int((s.nx + 1) * (s.ny + 1)) && added[1] == added[0]);
  tessel3d_fuzz::require_renumbered(s, connect[0], coords[0], connect[1], coords[1]);
  if (tessel3d_fuzz::box_volume_known(s))
    tessel3d_fuzz::require_close(tessel3d_fuzz::total_volume(coords[1], connect[1]), 1.0);
  std::size_t moved = 0;
  for (std::size_t j = 0; j < connect[1].cols(); ++j) {
    bool uses_new = false;
    for (unsigned r = 0; r < 8; ++r) uses_new = uses_new || connect[1](r, j) >= s.mesh.coords.cols();
    moved += uses_new;
  }
  require(moved == layer);
}

}  // namespace

TESSEL3D_FUZZ_TARGET(surface) {
  if (tessel3d_fuzz::is_structured(data, size)) {
    tessel3d_fuzz::byte_reader structured(data + 1, size - 1);
    structured_surface(structured);
    return 0;
  }
  tessel3d_fuzz::byte_reader in(data, size);
  auto coords = in.coords(24);
  const unsigned nb_nodes = static_cast<unsigned>(coords.cols());
  const zel::element_type types[] = {zel::TH4, zel::H8, zel::SOLID_MIX8, zel::PY5};
  const zel::element_type type = types[in.below(4)];
  auto connect = in.connectivity({type == zel::TH4 ? 4u : 8u}, nb_nodes, 12);
  const unsigned nb_elements = static_cast<unsigned>(connect.cols());
  zel::dense2D<unsigned> neighbors;
  zel::dense1D<unsigned, 8> node_element;
  if (in.flag()) {
    zel::tessel::get_neighbors(connect, type, neighbors);
    zel::tessel::get_node_element(connect, nb_nodes, node_element);
  } else {
    neighbors =
        in.matrix<unsigned>(type == zel::TH4 ? 4 : 6, nb_elements, [&](std::size_t) { return in.id(nb_elements); });
    node_element = in.ids(nb_elements, nb_nodes + 1);
  }
  auto surface = in.connectivity({type == zel::TH4 ? 3u : 4u}, nb_nodes, 8);
  auto excluded = in.ids(nb_nodes, 4);
  const std::size_t entry_nodes = coords.cols();
  zel::dense2D<unsigned> before;
  if (!before.copy(connect)) return 0;
  const int added = zel::tessel3d::duplicate_surface_nodes(coords, connect, neighbors, node_element, surface, excluded,
                                                           in.flag(), in.flag(), type);
  if (added <= 0) {  // nothing changed
    if (coords.cols() != entry_nodes) __builtin_trap();
    for (std::size_t j = 0; j < connect.cols(); ++j)
      for (std::size_t i = 0; i < connect.rows(); ++i)
        if (connect(i, j) != before(i, j)) __builtin_trap();
  } else if (coords.cols() != entry_nodes + static_cast<std::size_t>(added)) {
    __builtin_trap();
  }
  return 0;
}
