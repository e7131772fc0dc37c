// Fuzz target: point location, field and metric interpolation.
#include "fuzz_input.h"
#include "fuzz_structured.h"
#include "zel/tessel3d.h"

namespace t3 = zel::tessel3d;

namespace {

using tessel3d_fuzz::require;

// 6V of the tetrahedron (a, b, c, d) with the library's orientation.
double six_volume(const double* a, const double* b, const double* c, const double* d) {
  double u[3], v[3], w[3];
  for (int k = 0; k < 3; ++k) u[k] = a[k] - d[k], v[k] = b[k] - d[k], w[k] = c[k] - d[k];
  return u[0] * (v[1] * w[2] - v[2] * w[1]) + u[1] * (v[2] * w[0] - v[0] * w[2]) + u[2] * (v[0] * w[1] - v[1] * w[0]);
}

// A valid tetrahedral box of thousands of elements, any numbering: a point found lies in
// the element found (every barycentric coordinate at least -1e-9), and a point well
// inside the box is found.
void structured_locate(tessel3d_fuzz::byte_reader& in) {
  const auto s = tessel3d_fuzz::read_structured(in, {tessel3d_test::box_kind::TH4});
  const auto& coords = s.mesh.coords;
  const auto& connect = s.mesh.connect;
  zel::dense2D<unsigned> neighbors;
  zel::dense1D<unsigned, 8> node_element;
  require(zel::tessel::get_neighbors(connect, zel::TH4, neighbors) == 0);
  require(zel::tessel::get_node_element(connect, static_cast<unsigned>(coords.cols()), node_element) == 0);
  // Over the nodes of the mesh only: the spread numberings leave unused nodes at the
  // origin, from which no search can start.
  zel::dense1D<unsigned, 8> used;
  for (std::size_t n = 0; n < coords.cols(); ++n)
    if (node_element[n] != ~0U) require(used.push_back(static_cast<unsigned>(n)));
  const zel::tessel::node_detector detector(coords, used);
  for (int k = 0; k < 8; ++k) {
    double p[3];
    for (double& x : p) x = -0.2 + 1.4 * in.word() / 4294967295.0;
    unsigned element = 0;
    const int status = t3::get_element_containing_point(coords, connect, neighbors, node_element, detector, zel::TH4,
                                                        zel::vector_fixed<double, 3>(p[0], p[1], p[2]), element, 0.0);
    bool inside = true;
    for (double x : p) inside = inside && x > 1e-6 && x < 1 - 1e-6;
    if (status != 1) {
      require(!inside);
      continue;
    }
    const double* node[4];
    for (int i = 0; i < 4; ++i) node[i] = &coords(0, connect(i, element));
    const double whole = six_volume(node[0], node[1], node[2], node[3]);
    for (int i = 0; i < 4; ++i) {
      const double* q[4] = {node[0], node[1], node[2], node[3]};
      q[i] = p;
      require(six_volume(q[0], q[1], q[2], q[3]) >= -1e-9 * whole);
    }
  }
}

}  // namespace

TESSEL3D_FUZZ_TARGET(locate) {
  if (tessel3d_fuzz::is_structured(data, size)) {
    tessel3d_fuzz::byte_reader structured(data + 1, size - 1);
    structured_locate(structured);
    return 0;
  }
  tessel3d_fuzz::byte_reader in(data, size);
  auto coords = in.coords(24);
  const unsigned nb_nodes = static_cast<unsigned>(coords.cols());
  auto connect = in.connectivity({4, 8, 6}, nb_nodes, 16);
  const unsigned nb_elements = static_cast<unsigned>(connect.cols());
  // Adjacency: mostly the true one (so that walks go somewhere), sometimes garbage.
  zel::dense2D<unsigned> neighbors;
  zel::dense1D<unsigned, 8> node_element;
  if (in.flag()) {
    zel::tessel::get_neighbors(connect, connect.rows() == 4 ? zel::TH4 : zel::SOLID_MIX8, neighbors);
    zel::tessel::get_node_element(connect, nb_nodes, node_element);
  } else {
    neighbors = in.matrix<unsigned>(in.flag() ? 4 : 6, nb_elements, [&](std::size_t) { return in.id(nb_elements); });
    node_element = in.ids(nb_elements, nb_nodes + 1);
  }
  auto nodes = in.ids(nb_nodes, 12);
  switch (in.below(5)) {
    case 0: {
      zel::tessel::node_detector detector(coords);
      unsigned element = 12345;
      const int status = t3::get_element_containing_point(coords, connect, neighbors, node_element, detector, in.type(),
                                                          in.point(), element, in.real());
      if (status == 1 && element >= nb_elements) __builtin_trap();
      if (status != 1 && element != ~0U) __builtin_trap();
      // Many points at once: each must get what the single search gives it.
      const zel::element_type type = in.type();
      const double tolerance = in.real();
      auto points = in.coords(8);
      zel::dense1D<unsigned, 8> elements;
      const int many = t3::get_elements_containing_points(coords, connect, neighbors, node_element, detector, type,
                                                          points, elements, tolerance);
      // -1 is also the walk meeting an invalid element, once coords passed its check.
      const bool searched = many >= 0 || (many == -1 && coords.rows() == 3);
      if (searched && elements.size() != points.cols()) __builtin_trap();
      for (std::size_t j = 0; searched && j < points.cols(); ++j) {
        unsigned alone = 12345;
        const zel::vector_fixed<double, 3> p(points(0, j), points(1, j), points(2, j));
        t3::get_element_containing_point(coords, connect, neighbors, node_element, detector, type, p, alone, tolerance);
        if (alone != elements[j]) __builtin_trap();
      }
      break;
    }
    case 1: {
      auto field =
          in.matrix<double>(in.below(4), in.flag() ? nb_nodes : in.below(30), [&](std::size_t) { return in.real(); });
      t3::interpolate(coords, connect, neighbors, node_element, field, nodes);
      break;
    }
    case 2: {
      zel::dense1D<double, 8> field = in.reals(in.flag() ? nb_nodes : 30);
      if (in.flag()) field.resize(nb_nodes, 1.0);
      t3::interpolate(coords, connect, neighbors, node_element, field, nodes);
      break;
    }
    case 3: {
      auto metrics = in.matrix<double>(in.flag() ? 6 : 5, in.flag() ? nb_nodes : in.below(30),
                                       [&](std::size_t) { return in.real(); });
      if (in.flag())
        t3::interpolate_metrics(coords, connect, neighbors, node_element, metrics, nodes, in.flag());
      else
        t3::interpolate_metrics(coords, connect, neighbors, node_element, metrics, in.flag());
      break;
    }
    default: {
      zel::dense1D<double, 8> sizes = in.reals(nb_nodes);
      if (in.flag()) sizes.resize(nb_nodes, 0.5);
      if (in.flag())
        t3::interpolate_metrics(coords, connect, neighbors, node_element, sizes, nodes, in.flag());
      else
        t3::interpolate_metrics(coords, connect, neighbors, node_element, sizes, in.flag());
      break;
    }
  }
  return 0;
}
