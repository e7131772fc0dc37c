// Fuzz target: duplication of the nodes of an internal surface.
#include "fuzz_input.h"
#include "zel/tessel3d.h"

TESSEL3D_FUZZ_TARGET(surface) {
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
    neighbors = in.matrix<unsigned>(type == zel::TH4 ? 4 : 6, nb_elements, [&](std::size_t) { return in.id(nb_elements); });
    node_element = in.ids(nb_elements, nb_nodes + 1);
  }
  auto surface = in.connectivity({type == zel::TH4 ? 3u : 4u}, nb_nodes, 8);
  auto excluded = in.ids(nb_nodes, 4);
  const std::size_t entry_nodes = coords.cols();
  zel::dense2D<unsigned> before;
  if (!before.copy(connect)) return 0;
  const int added = zel::tessel3d::duplicate_surface_nodes(coords, connect, neighbors, node_element, surface,
                                                           excluded, in.flag(), in.flag(), type);
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
