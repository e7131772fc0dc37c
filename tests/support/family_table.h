// One row per exported family and form, for the tests that run every family the same
// way (allocation failures, concurrent calls): a builder of representative inputs, the
// call, and what its outputs hold after an allocation failed inside it.
//
// Every row works on a `scene`: the same named matrices for every family, so that a
// whole scene can be compared entry by entry. Inputs are `coords` (in-out where the
// family grows it), `connect` (in-out for the in-place forms), `neighbors`, `faces`,
// `edges`, `E2`, `reals_in`, `ids`, `node_element`, `detector`; pure outputs are `out`,
// `E`, `Q4`, `Top`, `reals_out`, `ids_out`, `values`, `min_values`, `max_values`,
// `element`, `scalar`. Outputs start with recognisable contents (7s) so that "left
// untouched" can be told from "rewritten".
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "box_mesh.h"
#include "zel/tessel.h"
#include "zel/tessel2d.h"
#include "zel/tessel3d.h"

namespace tessel3d_test {

using zel::dense1D;
using zel::dense2D;
using vec3 = zel::vector_fixed<double, 3>;

struct scene {
  dense2D<double> coords, reals_in, reals_out;
  dense2D<unsigned> connect, neighbors, faces, edges, E2, out, E, Q4, Top;
  dense1D<unsigned, 8> ids, node_element, ids_out;
  dense1D<double, 8> values, min_values, max_values;
  zel::tessel::node_detector detector;
  unsigned element = 7;
  double scalar = 7;
};

// ---- comparison ----------------------------------------------------------------------------

// Same shape and bitwise the same entries (so that NaN equals NaN).
template <class T>
bool same(const dense2D<T>& a, const dense2D<T>& b) {
  if (a.rows() != b.rows() || a.cols() != b.cols()) return false;
  for (std::size_t j = 0; j < a.cols(); ++j)
    if (a.rows() && std::memcmp(&a(0, j), &b(0, j), a.rows() * sizeof(T)) != 0) return false;
  return true;
}
template <class T>
bool same(const dense1D<T, 8>& a, const dense1D<T, 8>& b) {
  return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}
inline bool same(const zel::tessel::node_detector& a, const zel::tessel::node_detector& b) {
  const vec3 probe(0.3, 0.2, 0.1);
  return a.size() == b.size() && a.find_closest(probe) == b.find_closest(probe);
}
inline bool same(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }
inline bool same(unsigned a, unsigned b) { return a == b; }

// Every field of the two scenes, each difference reported by name.
inline void expect_same(const scene& a, const scene& b, const std::string& where) {
#define TESSEL3D_SAME_FIELD(f) EXPECT_TRUE(same(a.f, b.f)) << where << ": " #f " differs"
  TESSEL3D_SAME_FIELD(coords);
  TESSEL3D_SAME_FIELD(reals_in);
  TESSEL3D_SAME_FIELD(reals_out);
  TESSEL3D_SAME_FIELD(connect);
  TESSEL3D_SAME_FIELD(neighbors);
  TESSEL3D_SAME_FIELD(faces);
  TESSEL3D_SAME_FIELD(edges);
  TESSEL3D_SAME_FIELD(E2);
  TESSEL3D_SAME_FIELD(out);
  TESSEL3D_SAME_FIELD(E);
  TESSEL3D_SAME_FIELD(Q4);
  TESSEL3D_SAME_FIELD(Top);
  TESSEL3D_SAME_FIELD(ids);
  TESSEL3D_SAME_FIELD(node_element);
  TESSEL3D_SAME_FIELD(ids_out);
  TESSEL3D_SAME_FIELD(values);
  TESSEL3D_SAME_FIELD(min_values);
  TESSEL3D_SAME_FIELD(max_values);
  TESSEL3D_SAME_FIELD(detector);
  TESSEL3D_SAME_FIELD(element);
  TESSEL3D_SAME_FIELD(scalar);
#undef TESSEL3D_SAME_FIELD
}

// ---- builders --------------------------------------------------------------------------------

// The boxes of the given kinds, one cell each, side by side along x, in the 8-row mixed
// layout: every kind's faces and edges in one mesh.
inline scene mixed_solids(std::initializer_list<box_kind> kinds) {
  scene s;
  std::vector<box_mesh> parts;
  std::size_t nodes = 0, elements = 0;
  for (box_kind k : kinds) {
    parts.push_back(make_box(k, 1, 1, 1));
    nodes += parts.back().coords.cols();
    elements += parts.back().connect.cols();
  }
  s.coords.resize(3, nodes);
  s.connect.resize(8, elements, ~0U);
  std::size_t node = 0, element = 0;
  double shift = 0;
  for (const box_mesh& p : parts) {
    for (std::size_t j = 0; j < p.coords.cols(); ++j)
      for (int d = 0; d < 3; ++d) s.coords(d, node + j) = p.coords(d, j) + (d == 0 ? shift : 0.0);
    for (std::size_t j = 0; j < p.connect.cols(); ++j, ++element)
      for (std::size_t i = 0; i < p.connect.rows(); ++i) s.connect(i, element) = unsigned(node + p.connect(i, j));
    node += p.coords.cols();
    shift += 2;
  }
  return s;
}

inline scene every_solid_kind() { return mixed_solids({box_kind::TH4, box_kind::PY5, box_kind::W6, box_kind::H8}); }

inline scene tetrahedra() {
  scene s;
  box_mesh box = make_box(box_kind::TH4, 2, 2, 1, 1, 1, 1, 0.1);
  s.coords = box.coords;
  s.connect = box.connect;
  return s;
}

// A 2 x 2 grid of faces at z = 0 in 4-row columns: quadrangles in cells (0, 0) and
// (1, 1), two triangles (~0U in row 3) in the others; two edges to sweep, and outputs
// that already hold one column each.
inline scene surface() {
  scene s;
  s.coords.resize(3, 9);
  for (unsigned j = 0; j < 3; ++j)
    for (unsigned i = 0; i < 3; ++i) s.coords(0, 3 * j + i) = 0.5 * i, s.coords(1, 3 * j + i) = 0.5 * j;
  s.connect = dense2D<unsigned>(4, 6, {0, 1, 4, 3, 1, 2, 5, ~0U, 1, 5, 4, ~0U, 3, 4, 7, ~0U, 3, 7, 6, ~0U, 4, 5, 8, 7});
  s.E2 = dense2D<unsigned>(2, 2, {0, 1, 1, 2});
  s.E = dense2D<unsigned>(8, 1, 7u);
  s.Q4 = dense2D<unsigned>(4, 1, 7u);
  s.Top = dense2D<unsigned>(4, 1, 7u);
  return s;
}

// The surface and a polyline of three more nodes starting at its node 0, with one
// tensor (reals_in) and one factor (values) per polyline node.
inline scene surface_and_line() {
  scene s = surface();
  s.coords.resize(3, 12);
  const double line[3][3] = {{0, 0, 1}, {0.2, 0, 2}, {0.5, 0.3, 3}};
  for (unsigned k = 0; k < 3; ++k)
    for (int d = 0; d < 3; ++d) s.coords(d, 9 + k) = line[k][d];
  s.ids = {0, 9, 10, 11};
  s.reals_in = dense2D<double>(6, 4, {1, 0, 1, 0, 0, 1, 1, 0, 1, 0, 0, 1, 4, 0, 4, 0, 0, 4, 1, 0.2, 2, 0, 0, 1});
  s.values = {1, 2, 2, 1};
  return s;
}

// A box of hexahedra with one caller's Q9 face (bottom of the first cell) and one
// caller's E3 edge, whose extra nodes are appended to the coordinates.
inline scene hexahedra_with_caller_nodes() {
  scene s;
  box_mesh box = make_box(box_kind::H8, 2, 1, 1);
  s.coords = box.coords;
  s.connect = box.connect;
  s.coords.resize(3, 17);
  const double extra[5][3] = {{0.25, 0, -0.05}, {0.5, 0.5, 0}, {0.25, 1, 0}, {0, 0.5, 0}, {0.25, 0.5, -0.02}};
  for (unsigned k = 0; k < 5; ++k)
    for (int d = 0; d < 3; ++d) s.coords(d, 12 + k) = extra[k][d];
  s.faces = dense2D<unsigned>(9, 1, {0, 1, 4, 3, 12, 13, 14, 15, 16});
  s.edges = dense2D<unsigned>(3, 1, {0, 1, 12});
  return s;
}

// ---- the table ---------------------------------------------------------------------------------

/// What a failing call is checked against: its status and that of a call without failure,
/// the allocation of the call that failed (1 = its first), the scene after it, the scene
/// on entry and the scene after a call without failure.
struct failure {
  int status, reference_status;
  long n;
  const scene& after;
  const scene& entry;
  const scene& reference;
};

struct family_row {
  const char* name;
  scene (*make)();
  int (*call)(scene&);
  void (*after_failure)(const failure&);
};

inline void PrintTo(const family_row& row, std::ostream* os) { *os << row.name; }

// The common rule: -199 and every matrix exactly as on entry (untouched, or brought back
// to its column count on entry with its old columns intact).
inline void unchanged(const failure& f) {
  EXPECT_EQ(f.status, -199);
  expect_same(f.after, f.entry, "after -199");
}

// Some calls size an internal table with a reservation whose failure they absorb (the
// table then starts small and grows on demand): the extrusions' surface node map, the
// duplication's face set. Either -199 with every output as on entry, or the full result.
inline void unchanged_or_complete(const failure& f) {
  if (f.status >= 0) {
    EXPECT_EQ(f.status, f.reference_status);
    return expect_same(f.after, f.reference, "after an absorbed failure");
  }
  unchanged(f);
}

// A value the angle walk cannot store is left out of its element's extremes: status 0,
// and at most one element whose extremes lie inside the full ones instead of equal.
inline void one_value_left_out(const failure& f) {
  EXPECT_EQ(f.status, 0);
  int differing = 0;
  for (std::size_t j = 0; j < f.reference.min_values.size(); ++j) {
    const double lo = f.reference.min_values[j], hi = f.reference.max_values[j];
    if (same(f.after.min_values[j], lo) && same(f.after.max_values[j], hi)) continue;
    ++differing;
    EXPECT_GE(f.after.min_values[j], lo);
    EXPECT_LE(f.after.max_values[j], hi);
    EXPECT_LE(f.after.min_values[j], f.after.max_values[j]);
  }
  EXPECT_LE(differing, 1);
}

// The conversion's result is cleared; coords keeps its column count (and entries).
inline void result_cleared(const failure& f) {
  EXPECT_EQ(f.status, -199);
  scene expected = f.entry;
  expected.out = dense2D<unsigned>();
  expect_same(f.after, expected, "after -199");
}

// In-place conversions: connect untouched when its copy failed (the copy's buffer is the
// call's first two allocations: header and values), cleared after any later failure.
inline void in_place_cleared(const failure& f) {
  EXPECT_EQ(f.status, -199);
  scene expected = f.entry;
  if (f.n > 2) expected.connect = dense2D<unsigned>();
  expect_same(f.after, expected, "after -199");
}

// Extrusion along a line: as the other extrusions; and when the removal of the
// polyline's unused copies runs out of memory, the copies stay and 0 is returned: the
// same elements, node for node at the same places, with the copies of the start node
// left in coords unreferenced.
inline void unmerged_or_unchanged(const failure& f) {
  if (f.status != 0) return unchanged(f);
  const scene& r = f.reference;
  if (f.after.coords.cols() == r.coords.cols()) return expect_same(f.after, r, "after an absorbed failure");
  ASSERT_EQ(f.after.coords.cols(), r.coords.cols() + (f.after.ids.size() - 1));
  for (const auto member : {&scene::E, &scene::Q4, &scene::Top}) {
    const dense2D<unsigned>& a = f.after.*member;
    const dense2D<unsigned>& b = r.*member;
    ASSERT_EQ(a.cols(), b.cols());
    for (std::size_t j = 0; j < a.cols(); ++j)
      for (std::size_t i = 0; i < a.rows(); ++i) {
        if (a(i, j) == ~0U || b(i, j) == ~0U) {
          EXPECT_EQ(a(i, j), b(i, j));
          continue;
        }
        for (int d = 0; d < 3; ++d) EXPECT_EQ(f.after.coords(d, a(i, j)), r.coords(d, b(i, j)));
      }
  }
}

// The tree could not be built: the detector holds no node.
inline void empty_detector(const failure& f) {
  EXPECT_EQ(f.after.detector.size(), 0u);
  EXPECT_EQ(f.after.detector.find_closest(vec3(0, 0, 0)), ~0U);
}

inline scene flip_input() {
  scene s = every_solid_kind();
  s.out.copy(s.connect);  // flipped in place: an output
  return s;
}

inline scene angle_input() {
  scene s = every_solid_kind();
  s.min_values = dense1D<double, 8>(s.connect.cols(), 7.0);
  s.max_values = dense1D<double, 8>(s.connect.cols(), 7.0);
  return s;
}

inline scene circumcenter_input() {
  scene s = tetrahedra();
  s.reals_out = dense2D<double>(3, 1, 7.0);
  return s;
}

inline scene quadratic_input() {
  box_mesh quadratic = make_box(box_kind::H8, 2, 1, 1);
  zel::tessel3d::convert_into_quadratic(quadratic.coords, quadratic.connect);
  scene s;
  s.coords = quadratic.coords;
  s.out = quadratic.connect;
  s.connect = s.out;  // a second view of the buffer: converting in place must detach
  return s;
}

inline scene split_input() {
  scene s = mixed_solids({box_kind::TH4, box_kind::W6, box_kind::H8});
  s.out = dense2D<unsigned>(8, 1, 7u);
  return s;
}

inline scene surface_with_normals() {
  scene s = surface();
  s.reals_in = dense2D<double>(3, 9, 0.0);
  for (std::size_t j = 0; j < 9; ++j) s.reals_in(2, j) = 0.5 + 0.1 * j;
  return s;
}

inline scene simplify_input() {
  scene s = tetrahedra();
  const std::size_t n = s.coords.cols();
  s.coords.resize(3, n + 3);
  for (int d = 0; d < 3; ++d) s.coords(d, n + 1) = 5.0 + d;
  s.out = dense2D<unsigned>(2, 2, {0, unsigned(n + 1), unsigned(n + 1), 1});
  return s;
}

inline scene normals_input() {
  scene s = surface();
  s.coords(2, 4) = 0.3;  // a bent surface: the feature angle filters some faces
  s.reals_out = dense2D<double>(3, 1, 7.0);
  return s;
}

inline scene neighbors_input() {
  scene s = tetrahedra();
  s.out = dense2D<unsigned>(1, 1, 7u);
  s.ids_out = {7};
  return s;
}

// A TH4 box with its adjacency and node search, and extra nodes in no element (inside,
// on a mesh node, outside) appended to coords; `ids` lists them, with one mesh node.
// reals_out holds a 2-component field (or 6-value metrics), values a scalar one (or
// sizes): given at the mesh nodes, 7 at the extra nodes.
inline scene free_nodes(bool metrics) {
  scene s = tetrahedra();
  const std::size_t mesh_nodes = s.coords.cols();
  zel::tessel::get_neighbors(s.connect, zel::TH4, s.neighbors);
  const double extra[5][3] = {{0.3, 0.4, 0.5}, {0.75, 0.2, 0.9}, {1.5, 0.5, 0.5}, {0.5, 0.5, 0}, {-0.2, -0.3, 2}};
  s.coords.resize(3, mesh_nodes + 5);
  for (unsigned k = 0; k < 5; ++k)
    for (int d = 0; d < 3; ++d) s.coords(d, mesh_nodes + k) = extra[k][d];
  const unsigned nb_nodes = unsigned(s.coords.cols());
  zel::tessel::get_node_element(s.connect, nb_nodes, s.node_element);
  s.detector = zel::tessel::node_detector(s.coords);
  const unsigned m = unsigned(mesh_nodes);
  s.ids = {m + 2, m, 3, m + 4, m + 1, m + 3};
  s.reals_out = dense2D<double>(metrics ? 6 : 2, nb_nodes, 0.0);
  s.values = dense1D<double, 8>(nb_nodes, 7.0);
  for (unsigned n = 0; n < nb_nodes; ++n) {
    const double x = s.coords(0, n), y = s.coords(1, n), z = s.coords(2, n);
    if (n >= mesh_nodes) {
      if (!metrics) s.reals_out(0, n) = s.reals_out(1, n) = 7;
      continue;  // metrics 0: not valid, so keep_valid does not skip them
    }
    s.values[n] = 1 + x + 2 * y + z;
    if (!metrics) {
      s.reals_out(0, n) = x - 2 * y + 3 * z;
      s.reals_out(1, n) = x * y;
    } else {
      const double m6[6] = {4 + x, 0.5 * y, 3 + z, 0.1, 0.2 * x, 2 + y};
      for (int k = 0; k < 6; ++k) s.reals_out(k, n) = m6[k];
    }
  }
  return s;
}
inline scene field_input() { return free_nodes(false); }
inline scene metric_input() { return free_nodes(true); }

// A TH4 box with two of its interior faces as the surface to open.
inline scene tetrahedra_and_surface() {
  scene s = tetrahedra();
  zel::tessel::get_neighbors(s.connect, zel::TH4, s.neighbors);
  zel::tessel::get_node_element(s.connect, unsigned(s.coords.cols()), s.node_element);
  static const unsigned face_nodes[4][3] = {{1, 2, 3}, {2, 0, 3}, {0, 1, 3}, {2, 1, 0}};
  std::vector<unsigned> faces;
  for (std::size_t e = 0; e < s.connect.cols() && faces.size() < 6; e += 5)
    for (unsigned f = 0; f < 4; ++f)
      if (s.neighbors(f, e) != ~0U) {
        for (unsigned k : face_nodes[f]) faces.push_back(s.connect(k, e));
        break;
      }
  s.faces.resize(3, faces.size() / 3);
  std::copy(faces.begin(), faces.end(), s.faces.data());
  s.ids = {s.faces(0, 0)};  // excluded
  return s;
}

// After -199 the interpolations leave the listed nodes handled before the failure with
// their results and the others as they were: a prefix of the list (in list order) matches
// the call without failure, the rest of the scene matches the entry. `listed` false: the
// forms that treat every node, in order.
template <bool listed, class SameNode>
void written_prefix(const failure& f, SameNode same_node) {
  EXPECT_EQ(f.status, -199);
  const std::size_t nb_nodes = f.entry.coords.cols();
  std::vector<bool> in_list(nb_nodes, !listed);
  const std::size_t count = listed ? f.entry.ids.size() : nb_nodes;
  bool handled = true;
  for (std::size_t k = 0; k < count; ++k) {
    const unsigned n = listed ? f.entry.ids[k] : unsigned(k);
    in_list[n] = true;
    if (handled && same_node(f.after, f.reference, n)) continue;
    handled = false;
    EXPECT_TRUE(same_node(f.after, f.entry, n)) << "node " << n << " after the failure";
  }
  for (unsigned n = 0; n < nb_nodes; ++n) {
    if (!in_list[n]) {
      EXPECT_TRUE(same_node(f.after, f.entry, n)) << "unlisted node " << n;
    }
  }
  scene expected = f.entry;
  expected.reals_out = f.after.reals_out;
  expected.values = f.after.values;
  expect_same(f.after, expected, "after -199");
}
inline bool same_column(const scene& a, const scene& b, unsigned n) {
  return std::memcmp(&a.reals_out(0, n), &b.reals_out(0, n), a.reals_out.rows() * sizeof(double)) == 0;
}
inline bool same_value(const scene& a, const scene& b, unsigned n) { return same(a.values[n], b.values[n]); }

// Every solid kind, with a quadrangle of the hexahedron, of a wedge and of a pyramid's
// base listed for splitting (as seen from their solids).
inline scene split_q4_input() {
  scene s = every_solid_kind();  // columns: 6 TH4, 6 PY5, 2 W6, 1 H8
  const unsigned pyramid = 6, wedge = 12, hexahedron = 14;
  auto node = [&](unsigned e, unsigned k) { return s.connect(k, e); };
  s.faces = dense2D<unsigned>(4, 3,
                              {node(hexahedron, 0), node(hexahedron, 1), node(hexahedron, 2), node(hexahedron, 3),
                               node(wedge, 2), node(wedge, 1), node(wedge, 4), node(wedge, 5), node(pyramid, 0),
                               node(pyramid, 1), node(pyramid, 2), node(pyramid, 3)});
  s.out = dense2D<unsigned>(1, 1, 7u);
  s.ids_out = {7};
  return s;
}

namespace t3 = zel::tessel3d;

inline const vec3 axis_point(-1, 0, 0), axis_turn(0, -1.5707963267948966, 0), lift(0, 0, 1), climb(0, 0, 2);

inline const std::vector<family_row>& family_table() {
  static const std::vector<family_row> rows = {
      // flips allocate nothing; they are here for the concurrent runs
      {"flip", flip_input, [](scene& s) { return t3::flip(s.out, zel::H8); }, unchanged},
      {"volume", every_solid_kind, [](scene& s) { return t3::volume(s.coords, s.connect, s.scalar); }, unchanged},
      {"circumcenters", circumcenter_input,
       [](scene& s) { return t3::circumcenters(s.coords, s.connect, s.reals_out); },
       [](const failure& f) {
         EXPECT_EQ(f.status, -199);
         scene expected = f.entry;
         expected.reals_out = dense2D<double>();  // emptied first
         expect_same(f.after, expected, "after -199");
       }},
      {"dihedral_angles", angle_input,
       [](scene& s) { return t3::dihedral_angles(s.coords, s.connect, true, s.min_values, s.max_values); },
       one_value_left_out},
      {"solid_angles", angle_input,
       [](scene& s) { return t3::solid_angles(s.coords, s.connect, false, s.min_values, s.max_values); },
       one_value_left_out},

      {"convert_into_high_order_result", every_solid_kind,
       [](scene& s) {
         return t3::convert_into_high_order(s.coords, s.connect, 2, 4, 3, 8, 1, 2, 1, s.out, s.faces, s.edges);
       },
       result_cleared},
      {"convert_into_high_order_caller_nodes", hexahedra_with_caller_nodes,
       [](scene& s) {
         return t3::convert_into_high_order(s.coords, s.connect, 1, 1, 0, 1, 0, 0, 0, s.out, s.faces, s.edges);
       },
       result_cleared},
      {"convert_into_high_order_in_place", every_solid_kind,
       [](scene& s) { return t3::convert_into_high_order(s.coords, s.connect, 1, 1, 1, 1, 1, 1, 1, s.faces, s.edges); },
       in_place_cleared},
      {"convert_into_quadratic", every_solid_kind,
       [](scene& s) { return t3::convert_into_quadratic(s.coords, s.connect); }, in_place_cleared},
      {"convert_into_quadratic_caller_nodes", hexahedra_with_caller_nodes,
       [](scene& s) { return t3::convert_into_quadratic(s.coords, s.connect, s.faces, s.edges); }, in_place_cleared},
      {"convert_into_linear", quadratic_input, [](scene& s) { return t3::convert_into_linear(s.connect); }, unchanged},
      {"split_into_H8", split_input,
       [](scene& s) { return t3::split_into_H8(s.coords, s.connect, s.out, s.faces, s.edges); }, unchanged},

      {"extrude_translate_count", surface,
       [](scene& s) { return t3::extrude_translate(s.coords, s.connect, lift, 3, s.E, s.E2, s.Q4, s.Top); },
       unchanged_or_complete},
      {"extrude_translate_count_short", surface,
       [](scene& s) { return t3::extrude_translate(s.coords, s.connect, lift, 3, s.E); }, unchanged_or_complete},
      {"extrude_translate_sizes", surface,
       [](scene& s) {
         return t3::extrude_translate(s.coords, s.connect, lift, 0.2, 0.5, false, s.E, s.E2, s.Q4, s.Top);
       },
       unchanged_or_complete},
      {"extrude_translate_sizes_short", surface,
       [](scene& s) { return t3::extrude_translate(s.coords, s.connect, lift, 0.2, 0.5, true, s.E); },
       unchanged_or_complete},
      {"extrude_rotate_count", surface,
       [](scene& s) {
         return t3::extrude_rotate(s.coords, s.connect, axis_point, axis_turn, 3, s.E, s.E2, s.Q4, s.Top);
       },
       unchanged_or_complete},
      {"extrude_rotate_count_short", surface,
       [](scene& s) { return t3::extrude_rotate(s.coords, s.connect, axis_point, axis_turn, 3, s.E); },
       unchanged_or_complete},
      {"extrude_rotate_sizes", surface,
       [](scene& s) {
         return t3::extrude_rotate(s.coords, s.connect, axis_point, axis_turn, 0.3, 0.6, false, s.E, s.E2, s.Q4, s.Top);
       },
       unchanged_or_complete},
      {"extrude_rotate_sizes_short", surface,
       [](scene& s) { return t3::extrude_rotate(s.coords, s.connect, axis_point, axis_turn, 0.3, 0.6, true, s.E); },
       unchanged_or_complete},
      {"extrude_spiral_count", surface,
       [](scene& s) {
         return t3::extrude_spiral(s.coords, s.connect, axis_point, axis_turn, climb, 3, s.E, s.E2, s.Q4, s.Top);
       },
       unchanged_or_complete},
      {"extrude_spiral_count_short", surface,
       [](scene& s) { return t3::extrude_spiral(s.coords, s.connect, axis_point, axis_turn, climb, 3, s.E); },
       unchanged_or_complete},
      {"extrude_spiral_sizes", surface,
       [](scene& s) {
         return t3::extrude_spiral(s.coords, s.connect, axis_point, axis_turn, climb, 0.4, 0.8, false, s.E, s.E2, s.Q4,
                                   s.Top);
       },
       unchanged_or_complete},
      {"extrude_spiral_sizes_short", surface,
       [](scene& s) {
         return t3::extrude_spiral(s.coords, s.connect, axis_point, axis_turn, climb, 0.4, 0.8, false, s.E);
       },
       unchanged_or_complete},
      {"extrude_normal_given", surface_with_normals,
       [](scene& s) { return t3::extrude_normal(s.coords, s.connect, s.reals_in, 3, s.E, s.E2, s.Q4, s.Top); },
       unchanged_or_complete},
      {"extrude_normal_given_short", surface_with_normals,
       [](scene& s) { return t3::extrude_normal(s.coords, s.connect, s.reals_in, 3, s.E); }, unchanged_or_complete},
      {"extrude_normal_count", surface,
       [](scene& s) { return t3::extrude_normal(s.coords, s.connect, 1.0, 3u, s.E, s.E2, s.Q4, s.Top); },
       unchanged_or_complete},
      {"extrude_normal_count_short", surface,
       [](scene& s) { return t3::extrude_normal(s.coords, s.connect, 1.0, 3u, s.E); }, unchanged_or_complete},
      {"extrude_normal_sizes", surface,
       [](scene& s) { return t3::extrude_normal(s.coords, s.connect, 1.0, 0.2, 0.4, false, s.E, s.E2, s.Q4, s.Top); },
       unchanged_or_complete},
      {"extrude_normal_sizes_short", surface,
       [](scene& s) { return t3::extrude_normal(s.coords, s.connect, 1.0, 0.2, 0.4, true, s.E); },
       unchanged_or_complete},
      {"extrude_line_tensors", surface_and_line,
       [](scene& s) { return t3::extrude_line(s.coords, s.connect, s.ids, lift, s.reals_in, s.E, s.E2, s.Q4, s.Top); },
       unmerged_or_unchanged},
      {"extrude_line_tensors_short", surface_and_line,
       [](scene& s) { return t3::extrude_line(s.coords, s.connect, s.ids, lift, s.reals_in, s.E); },
       unmerged_or_unchanged},
      {"extrude_line_factors", surface_and_line,
       [](scene& s) { return t3::extrude_line(s.coords, s.connect, s.ids, lift, s.values, s.E, s.E2, s.Q4, s.Top); },
       unmerged_or_unchanged},
      {"extrude_line_factors_short", surface_and_line,
       [](scene& s) { return t3::extrude_line(s.coords, s.connect, s.ids, lift, s.values, s.E); },
       unmerged_or_unchanged},

      {"get_element_containing_point", field_input,
       [](scene& s) {
         return t3::get_element_containing_point(s.coords, s.connect, s.neighbors, s.node_element, s.detector, zel::TH4,
                                                 vec3(1.02, 0.5, 0.4), s.element, 1e-9);
       },
       [](const failure& f) {
         EXPECT_EQ(f.status, -199);
         scene expected = f.entry;
         expected.element = ~0U;
         expect_same(f.after, expected, "after -199");
       }},
      {"interpolate_components", field_input,
       [](scene& s) { return t3::interpolate(s.coords, s.connect, s.neighbors, s.node_element, s.reals_out, s.ids); },
       [](const failure& f) { written_prefix<true>(f, same_column); }},
      {"interpolate_scalar", field_input,
       [](scene& s) { return t3::interpolate(s.coords, s.connect, s.neighbors, s.node_element, s.values, s.ids); },
       [](const failure& f) { written_prefix<true>(f, same_value); }},
      {"interpolate_metrics_tensors", metric_input,
       [](scene& s) {
         return t3::interpolate_metrics(s.coords, s.connect, s.neighbors, s.node_element, s.reals_out, s.ids, true);
       },
       [](const failure& f) { written_prefix<true>(f, same_column); }},
      {"interpolate_metrics_tensors_every_node", metric_input,
       [](scene& s) {
         return t3::interpolate_metrics(s.coords, s.connect, s.neighbors, s.node_element, s.reals_out, false);
       },
       [](const failure& f) { written_prefix<false>(f, same_column); }},
      {"interpolate_metrics_sizes", metric_input,
       [](scene& s) {
         return t3::interpolate_metrics(s.coords, s.connect, s.neighbors, s.node_element, s.values, s.ids, false);
       },
       [](const failure& f) { written_prefix<true>(f, same_value); }},
      {"interpolate_metrics_sizes_every_node", metric_input,
       [](scene& s) {
         return t3::interpolate_metrics(s.coords, s.connect, s.neighbors, s.node_element, s.values, true);
       },
       [](const failure& f) { written_prefix<false>(f, same_value); }},
      {"duplicate_surface_nodes", tetrahedra_and_surface,
       [](scene& s) {
         return t3::duplicate_surface_nodes(s.coords, s.connect, s.neighbors, s.node_element, s.faces, s.ids, true,
                                            true, zel::TH4);
       },
       unchanged_or_complete},

      {"split_solid_Q4", split_q4_input,
       [](scene& s) { return t3::split_solid_Q4(s.coords, s.connect, s.faces, 0.05, s.out, s.ids_out); },
       [](const failure& f) {
         EXPECT_EQ(f.status, -199);
         scene expected = f.entry;
         expected.out = dense2D<unsigned>();  // cleared first
         expected.ids_out = dense1D<unsigned, 8>();
         expect_same(f.after, expected, "after -199");
       }},

      {"get_neighbors", neighbors_input,
       [](scene& s) { return zel::tessel::get_neighbors(s.connect, zel::TH4, s.out); }, unchanged},
      {"get_node_element", neighbors_input,
       [](scene& s) {
         return zel::tessel::get_node_element(s.connect, static_cast<unsigned>(s.coords.cols()), s.ids_out);
       },
       unchanged},
      {"node_detector", tetrahedra,
       [](scene& s) {
         s.detector = zel::tessel::node_detector(s.coords);
         return 0;
       },
       empty_detector},
      {"node_detector_subset", surface_and_line,
       [](scene& s) {
         s.detector = zel::tessel::node_detector(s.coords, s.ids);
         return 0;
       },
       empty_detector},
      {"simplify", simplify_input,
       [](scene& s) {
         return zel::tessel::simplify(s.coords, &s.out, &s.out + 1, s.ids_out, unsigned(s.coords.cols() - 3));
       },
       unchanged},
      {"normals", normals_input,
       [](scene& s) { return zel::tessel2d::normals(s.coords, s.connect, 0.2, true, s.reals_out); }, unchanged},
  };
  return rows;
}

}  // namespace tessel3d_test
