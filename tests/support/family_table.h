// One row per exported family and form, for the tests that run every family the same
// way (allocation failures, concurrent calls, views with padding): a builder of
// representative inputs, the call, and what its outputs hold after an allocation failed
// inside it.
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

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "box_mesh.h"
#include "zel/tessel.h"
#include "zel/tessel2d.h"
#include "zel/tessel3d.h"

namespace tessel3d_test {

using zel::dense1D;
using zel::dense2D;
using vec3 = zel::vector_fixed<double, 3>;
namespace t3 = zel::tessel3d;

struct scene {
  dense2D<double> coords, reals_in, reals_out;
  dense2D<unsigned> connect, neighbors, faces, edges, E2, out, E, Q4, Top;
  dense1D<unsigned, 8> ids, node_element, ids_out;
  dense1D<double, 8> values, min_values, max_values;
  zel::tessel::node_detector detector;
  unsigned element = 7;
  double scalar = 7;
};

// The matrices of a scene, and then its other fields, with their names.
template <class S>
auto matrices(S& s) {
  return std::tie(s.coords, s.reals_in, s.reals_out, s.connect, s.neighbors, s.faces, s.edges, s.E2, s.out, s.E, s.Q4,
                  s.Top);
}
template <class S>
auto fields(S& s) {
  return std::tuple_cat(matrices(s), std::tie(s.ids, s.node_element, s.ids_out, s.values, s.min_values, s.max_values,
                                              s.detector, s.element, s.scalar));
}
inline const char* const field_names[] = {
    "coords",  "reals_in", "reals_out",  "connect",    "neighbors", "faces",   "edges",
    "E2",      "out",      "E",          "Q4",         "Top",       "ids",     "node_element",
    "ids_out", "values",   "min_values", "max_values", "detector",  "element", "scalar"};

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
  std::size_t k = 0;
  auto check = [&](const auto& x, const auto& y) {
    EXPECT_TRUE(same(x, y)) << where << ": " << field_names[k] << " differs";
    ++k;
  };
  std::apply([&](const auto&... x) { std::apply([&](const auto&... y) { (check(x, y), ...); }, fields(b)); },
             fields(a));
}

// ---- builders --------------------------------------------------------------------------------

// Appends nodes to coords; returns the ID of the first.
inline unsigned append_nodes(dense2D<double>& coords, std::initializer_list<vec3> points) {
  const std::size_t first = coords.cols();
  coords.resize(3, first + points.size());
  for (std::size_t k = 0; k < points.size(); ++k)
    for (int d = 0; d < 3; ++d) coords(d, first + k) = points.begin()[k][d];
  return unsigned(first);
}

// Outputs that already hold something (7s), for the families that write them.
inline scene with_outputs(scene s) {
  s.out = dense2D<unsigned>(8, 1, 7u);
  s.reals_out = dense2D<double>(3, 1, 7.0);
  s.ids_out = {7};
  s.min_values = dense1D<double, 8>(s.connect.cols(), 7.0);
  s.max_values = dense1D<double, 8>(s.connect.cols(), 7.0);
  return s;
}

inline scene from_box(const box_mesh& box) {
  scene s;
  s.coords = box.coords;
  s.connect = box.connect;
  return with_outputs(s);
}
inline scene tetrahedra() { return from_box(make_box(box_kind::TH4, 2, 2, 1, 1, 1, 1, 0.1)); }

// The boxes of the given kinds, one cell each, side by side along x, in the 8-row mixed
// layout: every kind's faces and edges in one mesh.
inline scene mixed_solids(std::initializer_list<box_kind> kinds) {
  scene s;
  double shift = 0;
  for (box_kind k : kinds) {
    const box_mesh part = make_box(k, 1, 1, 1);
    const std::size_t element = s.connect.cols(), node = s.coords.cols();
    for (std::size_t j = 0; j < part.coords.cols(); ++j)
      append_nodes(s.coords, {vec3(part.coords(0, j) + shift, part.coords(1, j), part.coords(2, j))});
    s.connect.resize(8, element + part.connect.cols(), ~0U);
    for (std::size_t j = 0; j < part.connect.cols(); ++j)
      for (std::size_t i = 0; i < part.connect.rows(); ++i)
        s.connect(i, element + j) = unsigned(node + part.connect(i, j));
    shift += 2;
  }
  return with_outputs(s);
}
inline scene every_solid_kind() { return mixed_solids({box_kind::TH4, box_kind::PY5, box_kind::W6, box_kind::H8}); }
// The same with the first tetrahedron's nodes 0 and 1 moved to one point: a degenerate
// element for the checked angle forms to list.
inline scene with_collapsed_tetrahedron() {
  scene s = every_solid_kind();
  for (int d = 0; d < 3; ++d) s.coords(d, s.connect(1, 0)) = s.coords(d, s.connect(0, 0));
  s.ids_out = {};  // no room yet, so that listing the element allocates
  return s;
}

// A 2 x 2 grid of faces at z = 0 in 4-row columns: quadrangles in cells (0, 0) and
// (1, 1), two triangles (~0U in row 3) in the others; two edges to sweep, a normal per
// node (reals_in), and outputs that already hold one column each.
inline scene surface() {
  scene s;
  for (unsigned j = 0; j < 3; ++j)
    append_nodes(s.coords, {vec3(0, 0.5 * j, 0), vec3(0.5, 0.5 * j, 0), vec3(1, 0.5 * j, 0)});
  s.connect = dense2D<unsigned>(4, 6, {0, 1, 4, 3, 1, 2, 5, ~0U, 1, 5, 4, ~0U, 3, 4, 7, ~0U, 3, 7, 6, ~0U, 4, 5, 8, 7});
  s = with_outputs(s);
  s.E2 = dense2D<unsigned>(2, 2, {0, 1, 1, 2});
  s.E = dense2D<unsigned>(8, 1, 7u);
  s.Q4 = dense2D<unsigned>(4, 1, 7u);
  s.Top = dense2D<unsigned>(4, 1, 7u);
  s.reals_in = dense2D<double>(3, 9, 0.0);
  for (std::size_t j = 0; j < 9; ++j) s.reals_in(2, j) = 0.5 + 0.1 * j;
  return s;
}
// The same with 2-row (planar) coordinates, contiguous so that lifting them allocates.
inline scene planar_surface() {
  scene s = surface();
  s.coords.copy(s.coords.sub_matrix(0, 0, 2, s.coords.cols()));
  return s;
}

// The surface and a polyline of three more nodes starting at its node 0, with one
// tensor (reals_in) and one factor (values) per polyline node.
inline scene surface_and_line() {
  scene s = surface();
  const unsigned first = append_nodes(s.coords, {vec3(0, 0, 1), vec3(0.2, 0, 2), vec3(0.5, 0.3, 3)});
  s.ids = {0, first, first + 1, first + 2};
  s.reals_in = dense2D<double>(6, 4, {1, 0, 1, 0, 0, 1, 1, 0, 1, 0, 0, 1, 4, 0, 4, 0, 0, 4, 1, 0.2, 2, 0, 0, 1});
  s.values = {1, 2, 2, 1};
  return s;
}

// A box of hexahedra with one caller's Q9 face (bottom of the first cell) and one
// caller's E3 edge, whose extra nodes are appended to the coordinates.
inline scene hexahedra_with_caller_nodes() {
  scene s = from_box(make_box(box_kind::H8, 2, 1, 1));
  append_nodes(s.coords,
               {vec3(0.25, 0, -0.05), vec3(0.5, 0.5, 0), vec3(0.25, 1, 0), vec3(0, 0.5, 0), vec3(0.25, 0.5, -0.02)});
  s.faces = dense2D<unsigned>(9, 1, {0, 1, 4, 3, 12, 13, 14, 15, 16});
  s.edges = dense2D<unsigned>(3, 1, {0, 1, 12});
  return s;
}

// A TH4 box with its adjacency and node search, and extra nodes in no element (inside,
// on a mesh node, outside) appended to coords; `ids` lists them, with one mesh node.
// reals_out holds a 2-component field (or 6-value metrics), values a scalar one (or
// sizes): given at the mesh nodes, 7 (metrics: 0, not valid) at the extra nodes.
inline scene free_nodes(bool metrics) {
  scene s = tetrahedra();
  const unsigned m = unsigned(s.coords.cols());
  zel::tessel::get_neighbors(s.connect, zel::TH4, s.neighbors);
  append_nodes(s.coords, {vec3(0.3, 0.4, 0.5), vec3(0.75, 0.2, 0.9), vec3(1.5, 0.5, 0.5), vec3(0.5, 0.5, 0),
                          vec3(-0.2, -0.3, 2)});
  const unsigned nb_nodes = unsigned(s.coords.cols());
  zel::tessel::get_node_element(s.connect, nb_nodes, s.node_element);
  s.detector = zel::tessel::node_detector(s.coords);
  s.ids = {m + 2, m, 3, m + 4, m + 1, m + 3};
  s.reals_out = dense2D<double>(metrics ? 6 : 2, nb_nodes, metrics ? 0.0 : 7.0);
  s.values = dense1D<double, 8>(nb_nodes, metrics ? 0.0 : 7.0);
  for (unsigned n = 0; n < m; ++n) {
    const double x = s.coords(0, n), y = s.coords(1, n), z = s.coords(2, n);
    const double given[6] = {x - 2 * y + 3 * z, x * y}, tensor[6] = {4 + x, 0.5 * y, 3 + z, 0.1, 0.2 * x, 2 + y};
    s.values[n] = 1 + x + 2 * y + z;
    for (std::size_t k = 0; k < s.reals_out.rows(); ++k) s.reals_out(k, n) = metrics ? tensor[k] : given[k];
  }
  return s;
}
inline scene field_input() { return free_nodes(false); }
// The same mesh and points to search in one call (reals_in): inside, on a mesh node, on
// the boundary, outside (searched again from the nodes around the closest one).
inline scene points_input() {
  scene s = free_nodes(false);
  s.reals_in = dense2D<double>(3, 5, {0.3, 0.4, 0.5, 1.5, 0.5, 0.5, 0, 0, 0, 0.5, 0.5, 0, 0.8, 0.1, 0.6});
  return s;
}
inline scene metric_input() { return free_nodes(true); }

// A TH4 box with two faces inside its first cell as the surface to open: face (2, 0, 3)
// of elements 0 and 3, each shared with the next element around the cell diagonal. The
// first node is excluded.
inline scene tetrahedra_and_surface() {
  scene s = tetrahedra();
  zel::tessel::get_neighbors(s.connect, zel::TH4, s.neighbors);
  zel::tessel::get_node_element(s.connect, unsigned(s.coords.cols()), s.node_element);
  auto c = [&](unsigned row, unsigned e) { return s.connect(row, e); };
  s.faces = dense2D<unsigned>(3, 2, {c(2, 0), c(0, 0), c(3, 0), c(2, 3), c(0, 3), c(3, 3)});
  s.ids = {s.faces(0, 0)};
  return s;
}

// Every solid kind (columns: 6 TH4, 6 PY5, 2 W6, 1 H8), with a quadrangle of the
// hexahedron, of a wedge and the base of a pyramid listed for splitting (as seen from
// their solids).
inline scene split_q4_input() {
  scene s = every_solid_kind();
  const unsigned picks[3][5] = {{14, 0, 1, 2, 3}, {12, 2, 1, 4, 5}, {6, 0, 1, 2, 3}};  // element, then its rows
  s.faces.resize(4, 3);
  for (unsigned f = 0; f < 3; ++f)
    for (unsigned k = 0; k < 4; ++k) s.faces(k, f) = s.connect(picks[f][k + 1], picks[f][0]);
  return s;
}

// ---- what a failing call leaves ---------------------------------------------------------------

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
  void (*after_failure)(const failure&);
  int (*call)(scene&);
};

inline void PrintTo(const family_row& row, std::ostream* os) { *os << row.name; }

// -199, and every field as on entry once `edit` has set the outputs that the call
// clears or resets before it can fail.
template <class Edit>
void entry_but(const failure& f, Edit edit) {
  EXPECT_EQ(f.status, -199);
  scene expected = f.entry;
  edit(expected);
  expect_same(f.after, expected, "after -199");
}

// The common rule: every matrix exactly as on entry (untouched, or brought back to its
// column count on entry with its old columns intact).
inline void unchanged(const failure& f) {
  entry_but(f, [](scene&) {});
}

// Some calls size an internal table with a reservation whose failure they absorb (the
// table then starts small and grows on demand): the extrusions' surface node map, the
// duplication's face set. Either -199 with every output as on entry, or the full result.
inline void unchanged_or_complete(const failure& f) {
  if (f.status < 0) return unchanged(f);
  EXPECT_EQ(f.status, f.reference_status);
  expect_same(f.after, f.reference, "after an absorbed failure");
}

// A planar coords is lifted to 3 rows (z = 0) before the layers are placed, and stays
// lifted, with its column count on entry, once that has been done.
inline void lifted_or_unchanged(const failure& f) {
  if (f.status >= 0 || f.after.coords.rows() == 2) return unchanged_or_complete(f);
  entry_but(f, [](scene& e) { e.coords.resize(3, e.coords.cols(), 0.0); });
}

// A value the angle walk cannot store is left out of its element's extremes: status 0,
// and at most one element whose extremes lie inside the full ones instead of equal.
inline void one_value_left_out(const failure& f) {
  EXPECT_EQ(f.status, 0);
  int differing = 0;
  for (std::size_t j = 0; j < f.reference.min_values.size(); ++j) {
    const double lo = f.reference.min_values[j], hi = f.reference.max_values[j];
    const double a = f.after.min_values[j], b = f.after.max_values[j];
    if (same(a, lo) && same(b, hi)) continue;
    ++differing;
    EXPECT_TRUE(lo <= a && a <= b && b <= hi) << "element " << j;
  }
  EXPECT_LE(differing, 1);
}

// The checked angle forms: -199 with every extreme as a call without failure gives them
// and the list of degenerate elements empty.
inline void extremes_written(const failure& f) {
  entry_but(f, [&](scene& e) {
    e.min_values = f.reference.min_values;
    e.max_values = f.reference.max_values;
    e.ids_out = {};
  });
}

// Extrusion along a line: as the other extrusions; and when the removal of the
// polyline's unused copies runs out of memory, the copies stay and 0 is returned: the
// same elements, node for node at the same places, with the copies of the start node
// left in coords unreferenced.
inline void unmerged_or_unchanged(const failure& f) {
  const scene& r = f.reference;
  if (f.status != 0 || f.after.coords.cols() == r.coords.cols()) return unchanged_or_complete(f);
  ASSERT_EQ(f.after.coords.cols(), r.coords.cols() + (f.after.ids.size() - 1));
  for (auto member : {&scene::E, &scene::Q4, &scene::Top}) {
    const dense2D<unsigned>&a = f.after.*member, &b = r.*member;
    ASSERT_EQ(a.cols(), b.cols());
    for (std::size_t j = 0; j < a.cols(); ++j)
      for (std::size_t i = 0; i < a.rows(); ++i)
        for (int d = 0; d < 3; ++d)
          EXPECT_TRUE(a(i, j) == ~0U || b(i, j) == ~0U ? a(i, j) == b(i, j)
                                                       : f.after.coords(d, a(i, j)) == r.coords(d, b(i, j)));
  }
}

// The tree could not be built: the detector holds no node.
inline void empty_detector(const failure& f) {
  EXPECT_EQ(f.after.detector.size(), 0u);
  EXPECT_EQ(f.after.detector.find_closest(vec3(0, 0, 0)), ~0U);
}

// After -199 the interpolations leave the nodes handled before the failure with their
// results and the others as they were: each listed node matches either the call without
// failure or the entry (the nodes are treated in an order of their positions, not in list
// order), an unlisted node the entry. `listed` false: the forms that treat every node.
// `scalar`: the values are in `values`, else in the columns of `reals_out`.
template <bool listed, bool scalar>
void treated_or_untouched(const failure& f) {
  EXPECT_EQ(f.status, -199);
  auto same_node = [](const scene& a, const scene& b, unsigned n) {
    if (scalar) return same(a.values[n], b.values[n]);
    return std::memcmp(&a.reals_out(0, n), &b.reals_out(0, n), a.reals_out.rows() * sizeof(double)) == 0;
  };
  const std::size_t nb_nodes = f.entry.coords.cols(), count = listed ? f.entry.ids.size() : nb_nodes;
  std::vector<bool> is_listed(nb_nodes, false);
  for (std::size_t k = 0; k < count; ++k) is_listed[listed ? f.entry.ids[k] : k] = true;
  for (unsigned n = 0; n < nb_nodes; ++n)
    EXPECT_TRUE(same_node(f.after, f.entry, n) || (is_listed[n] && same_node(f.after, f.reference, n)))
        << "node " << n << " after the failure";
  entry_but(f, [&](scene& e) {
    e.reals_out = f.after.reals_out;
    e.values = f.after.values;
  });
}

// ---- the table ---------------------------------------------------------------------------------

// A row whose call is the expression given last (on the scene `s`).
#define TESSEL3D_ROW(name, make, after, ...)                \
  family_row {                                              \
    name, make, after, [](scene& s) { return __VA_ARGS__; } \
  }
// An extrusion in its long form (E, E2, Q4, Top) and its short form (E only).
#define TESSEL3D_EXTRUSION(name, make, after, call, ...)                      \
  TESSEL3D_ROW(name, make, after, call(__VA_ARGS__, s.E, s.E2, s.Q4, s.Top)), \
      TESSEL3D_ROW(name "_short", make, after, call(__VA_ARGS__, s.E))

inline const vec3 axis_point(-1, 0, 0), axis_turn(0, -1.5707963267948966, 0), lift(0, 0, 1), climb(0, 0, 2);

// The conversions clear their result; in place, connect is untouched while its copy (the
// call's first two allocations: header and values) fails, and cleared after that.
inline void result_cleared(const failure& f) {
  entry_but(f, [](scene& e) { e.out = {}; });
}
inline void copy_then_cleared(const failure& f) {
  entry_but(f, [&](scene& e) { e.connect = f.n > 2 ? dense2D<unsigned>() : dense2D<unsigned>(e.connect); });
}

// clang-format off
inline const std::vector<family_row>& family_table() {
  using zel::tessel::node_detector;
  static const std::vector<family_row> rows = {
    // flips allocate nothing; they are here for the concurrent runs
    TESSEL3D_ROW("flip", ([] { scene s = every_solid_kind(); s.out.copy(s.connect); return s; }), unchanged,
                 t3::flip(s.out, zel::H8)),
    TESSEL3D_ROW("volume", every_solid_kind, unchanged, t3::volume(s.coords, s.connect, s.scalar)),
    TESSEL3D_ROW("circumcenters", tetrahedra,
                 [](const failure& f) { entry_but(f, [](scene& e) { e.reals_out = {}; }); },  // emptied first
                 t3::circumcenters(s.coords, s.connect, s.reals_out)),
    TESSEL3D_ROW("dihedral_angles", every_solid_kind, one_value_left_out,
                 t3::dihedral_angles(s.coords, s.connect, true, s.min_values, s.max_values)),
    TESSEL3D_ROW("solid_angles", every_solid_kind, one_value_left_out,
                 t3::solid_angles(s.coords, s.connect, false, s.min_values, s.max_values)),
    // the checked forms allocate only to list degenerate elements (here the collapsed
    // TH4): on failure every extreme is written and the list is left empty
    TESSEL3D_ROW("dihedral_angles_checked", with_collapsed_tetrahedron, extremes_written,
                 t3::dihedral_angles(s.coords, s.connect, true, s.min_values, s.max_values, s.ids_out)),
    TESSEL3D_ROW("solid_angles_checked", with_collapsed_tetrahedron, extremes_written,
                 t3::solid_angles(s.coords, s.connect, false, s.min_values, s.max_values, s.ids_out)),

    TESSEL3D_ROW("convert_into_high_order_result", every_solid_kind, result_cleared,
                 t3::convert_into_high_order(s.coords, s.connect, 2, 4, 3, 8, 1, 2, 1, s.out, s.faces, s.edges)),
    TESSEL3D_ROW("convert_into_high_order_caller_nodes", hexahedra_with_caller_nodes, result_cleared,
                 t3::convert_into_high_order(s.coords, s.connect, 1, 1, 0, 1, 0, 0, 0, s.out, s.faces, s.edges)),
    TESSEL3D_ROW("convert_into_high_order_conforming", [] { return from_box(make_box(box_kind::W6, 2, 2, 1)); },
                 result_cleared,
                 t3::convert_into_high_order(s.coords, s.connect, 3, 4, 3, 64, 1, 2, 1, s.out, s.faces, s.edges,
                                             t3::high_order_options())),
    TESSEL3D_ROW("convert_into_high_order_conforming_in_place", every_solid_kind, copy_then_cleared,
                 t3::convert_into_high_order(s.coords, s.connect, 2, 4, 3, 8, 1, 1, 1, s.faces, s.edges,
                                             t3::high_order_options())),
    TESSEL3D_ROW("convert_into_high_order_in_place", every_solid_kind, copy_then_cleared,
                 t3::convert_into_high_order(s.coords, s.connect, 1, 1, 1, 1, 1, 1, 1, s.faces, s.edges)),
    TESSEL3D_ROW("convert_into_quadratic", every_solid_kind, copy_then_cleared,
                 t3::convert_into_quadratic(s.coords, s.connect)),
    TESSEL3D_ROW("convert_into_quadratic_caller_nodes", hexahedra_with_caller_nodes, copy_then_cleared,
                 t3::convert_into_quadratic(s.coords, s.connect, s.faces, s.edges)),
    // out is a second view of the quadratic connectivity: converting in place must detach
    TESSEL3D_ROW("convert_into_linear", ([] {
                   scene s = hexahedra_with_caller_nodes();
                   t3::convert_into_quadratic(s.coords, s.connect);
                   s.out = s.connect;
                   return s; }),
                 unchanged, t3::convert_into_linear(s.connect)),
    TESSEL3D_ROW("split_into_H8", [] { return mixed_solids({box_kind::TH4, box_kind::W6, box_kind::H8}); }, unchanged,
                 t3::split_into_H8(s.coords, s.connect, s.out, s.faces, s.edges)),

    TESSEL3D_EXTRUSION("extrude_translate_count", surface, unchanged_or_complete, t3::extrude_translate,
                       s.coords, s.connect, lift, 3),
    TESSEL3D_EXTRUSION("extrude_translate_sizes", surface, unchanged_or_complete, t3::extrude_translate,
                       s.coords, s.connect, lift, 0.2, 0.5, false),
    TESSEL3D_ROW("extrude_translate_planar", planar_surface, lifted_or_unchanged,
                 t3::extrude_translate(s.coords, s.connect, lift, 3, s.E, s.E2, s.Q4, s.Top)),
    TESSEL3D_EXTRUSION("extrude_rotate_count", surface, unchanged_or_complete, t3::extrude_rotate,
                       s.coords, s.connect, axis_point, axis_turn, 3),
    TESSEL3D_EXTRUSION("extrude_rotate_sizes", surface, unchanged_or_complete, t3::extrude_rotate,
                       s.coords, s.connect, axis_point, axis_turn, 0.3, 0.6, true),
    TESSEL3D_ROW("extrude_rotate_planar", planar_surface, lifted_or_unchanged,
                 t3::extrude_rotate(s.coords, s.connect, axis_point, axis_turn, 3, s.E, s.E2, s.Q4, s.Top)),
    TESSEL3D_EXTRUSION("extrude_spiral_count", surface, unchanged_or_complete, t3::extrude_spiral,
                       s.coords, s.connect, axis_point, axis_turn, climb, 3),
    TESSEL3D_EXTRUSION("extrude_spiral_sizes", surface, unchanged_or_complete, t3::extrude_spiral,
                       s.coords, s.connect, axis_point, axis_turn, climb, 0.4, 0.8, false),
    TESSEL3D_EXTRUSION("extrude_normal_given", surface, unchanged_or_complete, t3::extrude_normal,
                       s.coords, s.connect, s.reals_in, 3),
    TESSEL3D_EXTRUSION("extrude_normal_count", surface, unchanged_or_complete, t3::extrude_normal,
                       s.coords, s.connect, 1.0, 3u),
    TESSEL3D_EXTRUSION("extrude_normal_sizes", surface, unchanged_or_complete, t3::extrude_normal,
                       s.coords, s.connect, 1.0, 0.2, 0.4, true),
    TESSEL3D_EXTRUSION("extrude_line_tensors", surface_and_line, unmerged_or_unchanged, t3::extrude_line,
                       s.coords, s.connect, s.ids, lift, s.reals_in),
    TESSEL3D_EXTRUSION("extrude_line_factors", surface_and_line, unmerged_or_unchanged, t3::extrude_line,
                       s.coords, s.connect, s.ids, lift, s.values),

    TESSEL3D_ROW("get_element_containing_point", field_input,
                 [](const failure& f) { entry_but(f, [](scene& e) { e.element = ~0U; }); },
                 t3::get_element_containing_point(s.coords, s.connect, s.neighbors, s.node_element, s.detector,
                                                  zel::TH4, vec3(1.02, 0.5, 0.4), s.element, 1e-9)),
    TESSEL3D_ROW("get_elements_containing_points", points_input, unchanged,
                 t3::get_elements_containing_points(s.coords, s.connect, s.neighbors, s.node_element, s.detector,
                                                    zel::TH4, s.reals_in, s.ids_out, 0.0)),
    TESSEL3D_ROW("interpolate_components", field_input, (treated_or_untouched<true, false>),
                 t3::interpolate(s.coords, s.connect, s.neighbors, s.node_element, s.reals_out, s.ids)),
    TESSEL3D_ROW("interpolate_scalar", field_input, (treated_or_untouched<true, true>),
                 t3::interpolate(s.coords, s.connect, s.neighbors, s.node_element, s.values, s.ids)),
    TESSEL3D_ROW("interpolate_metrics_tensors", metric_input, (treated_or_untouched<true, false>),
                 t3::interpolate_metrics(s.coords, s.connect, s.neighbors, s.node_element, s.reals_out, s.ids, true)),
    TESSEL3D_ROW("interpolate_metrics_tensors_every_node", metric_input, (treated_or_untouched<false, false>),
                 t3::interpolate_metrics(s.coords, s.connect, s.neighbors, s.node_element, s.reals_out, false)),
    TESSEL3D_ROW("interpolate_metrics_sizes", metric_input, (treated_or_untouched<true, true>),
                 t3::interpolate_metrics(s.coords, s.connect, s.neighbors, s.node_element, s.values, s.ids, false)),
    TESSEL3D_ROW("interpolate_metrics_sizes_every_node", metric_input, (treated_or_untouched<false, true>),
                 t3::interpolate_metrics(s.coords, s.connect, s.neighbors, s.node_element, s.values, true)),
    TESSEL3D_ROW("locate_points", points_input, unchanged,
                 t3::locate_points(s.coords, s.connect, s.reals_in, s.ids_out, 0.0)),
    // a locator built and searched in one call; the points are outside, on a node, inside
    TESSEL3D_ROW("point_locator", points_input, unchanged, ([&s] {
                   t3::point_locator locator;
                   const int built = locator.build(s.coords, s.connect);
                   return built != 0 ? built : locator.find(s.reals_in, s.ids_out, 1e-9);
                 })()),
    TESSEL3D_ROW("interpolate_projected_components", field_input, unchanged,
                 t3::interpolate_projected(s.coords, s.connect, s.reals_out, s.ids)),
    TESSEL3D_ROW("interpolate_projected_scalar", field_input, unchanged,
                 t3::interpolate_projected(s.coords, s.connect, s.values, s.ids)),
    TESSEL3D_ROW("interpolate_metrics_projected_tensors", metric_input, unchanged,
                 t3::interpolate_metrics_projected(s.coords, s.connect, s.reals_out, s.ids, true)),
    TESSEL3D_ROW("interpolate_metrics_projected_tensors_every_node", metric_input, unchanged,
                 t3::interpolate_metrics_projected(s.coords, s.connect, s.reals_out, false)),
    TESSEL3D_ROW("interpolate_metrics_projected_sizes", metric_input, unchanged,
                 t3::interpolate_metrics_projected(s.coords, s.connect, s.values, s.ids, false)),
    TESSEL3D_ROW("interpolate_metrics_projected_sizes_every_node", metric_input, unchanged,
                 t3::interpolate_metrics_projected(s.coords, s.connect, s.values, true)),
    TESSEL3D_ROW("duplicate_surface_nodes", tetrahedra_and_surface, unchanged_or_complete,
                 t3::duplicate_surface_nodes(s.coords, s.connect, s.neighbors, s.node_element, s.faces, s.ids, true,
                                             true, zel::TH4)),
    // both outputs are cleared first
    TESSEL3D_ROW("split_solid_Q4", split_q4_input,
                 [](const failure& f) { entry_but(f, [](scene& e) { e.out = {}; e.ids_out = {}; }); },
                 t3::split_solid_Q4(s.coords, s.connect, s.faces, 0.05, s.out, s.ids_out)),
    // the conforming form writes its (column, reason) list into E; both outputs cleared first
    TESSEL3D_ROW("split_solid_Q4_conforming", split_q4_input,
                 [](const failure& f) { entry_but(f, [](scene& e) { e.out = {}; e.E = {}; }); },
                 t3::split_solid_Q4(s.coords, s.connect, s.faces, 0.05, s.out, s.E)),

    TESSEL3D_ROW("get_neighbors", tetrahedra, unchanged, zel::tessel::get_neighbors(s.connect, zel::TH4, s.out)),
    TESSEL3D_ROW("get_node_element", tetrahedra, unchanged,
                 zel::tessel::get_node_element(s.connect, unsigned(s.coords.cols()), s.ids_out)),
    TESSEL3D_ROW("node_detector", tetrahedra, empty_detector, (s.detector = node_detector(s.coords), 0)),
    TESSEL3D_ROW("node_detector_subset", surface_and_line, empty_detector,
                 (s.detector = node_detector(s.coords, s.ids), 0)),
    // two pairs of nodes to merge, coords gaining an unused node in between
    TESSEL3D_ROW("simplify", ([] {
                   scene s = tetrahedra();
                   const unsigned n = append_nodes(s.coords, {vec3(0, 0, 0), vec3(5, 6, 7), vec3(0, 0, 0)});
                   s.out = dense2D<unsigned>(2, 2, {0, n + 1, n + 1, 1});
                   return s; }),
                 unchanged,
                 zel::tessel::simplify(s.coords, &s.out, &s.out + 1, s.ids_out, unsigned(s.coords.cols() - 3))),
    // a bent surface: the feature angle filters some faces
    TESSEL3D_ROW("normals", ([] { scene s = surface(); s.coords(2, 4) = 0.3; return s; }), unchanged,
                 zel::tessel2d::normals(s.coords, s.connect, 0.2, true, s.reals_out)),
  };
  return rows;
}
// clang-format on

#undef TESSEL3D_EXTRUSION
#undef TESSEL3D_ROW

// The call on views whose leading dimension exceeds their rows gives what it gives on
// plain matrices, and writes nothing into the rows between (guards of 7, but after the
// last column, which growth may reclaim, and in a matrix moved to a buffer of its own).
inline void expect_same_on_views(const family_row& row) {
  scene plain = row.make(), padded = row.make();
  const int status = row.call(plain);
  std::vector<std::tuple<const void*, std::size_t, std::size_t>> entry;  // data, rows, columns
  auto pad = [&](auto& m) {
    m = padded_view(m, 2, typename std::decay_t<decltype(m)>::value_type(7));
    entry.emplace_back(m.data(), m.rows(), m.cols());
  };
  std::apply([&](auto&... m) { (pad(m), ...); }, matrices(padded));
  EXPECT_EQ(row.call(padded), status) << row.name;
  expect_same(padded, plain, std::string(row.name) + " on views");
  std::size_t k = 0;
  auto guards_kept = [&](const auto& m) {
    const auto [data, rows, cols] = entry[k++];
    for (std::size_t j = 0; m.data() == data && j + 1 < std::min(cols, m.cols()); ++j)
      for (std::size_t i = std::max(rows, m.rows()); i < m.ld(); ++i)
        EXPECT_EQ(m.data()[j * m.ld() + i], 7) << row.name << ": " << field_names[k - 1] << " padding";
  };
  std::apply([&](const auto&... m) { (guards_kept(m), ...); }, matrices(padded));
}

// f(field, index) for every field of a tuple of references.
template <class Tuple, class F, std::size_t... I>
void each_field(const Tuple& t, F&& f, std::index_sequence<I...>) {
  (f(std::get<I>(t), I), ...);
}
template <class Tuple, class F>
void each_field(const Tuple& t, F&& f) {
  each_field(t, f, std::make_index_sequence<std::tuple_size<Tuple>::value>{});
}
// f(x, y, i) for the fields of one index of two tuples of the same types.
template <class Tuple, class F>
void each_pair(const Tuple& t1, const Tuple& t2, F&& f) {
  each_field(t1, [&](auto& x, std::size_t i) {
    each_field(t2, [&](auto& y, std::size_t k) {
      if constexpr (std::is_same_v<decltype(x), decltype(y)>)
        if (k == i) f(x, y, i);
    });
  });
}

// The matrices and vectors of a scene.
template <class S>
auto arrays(S& s) {
  return std::tuple_cat(matrices(s), std::tie(s.ids, s.node_element, s.ids_out, s.values, s.min_values, s.max_values));
}

// Every ordered pair (a, b) of arrays of one type, b made a shallow copy of a (sharing its
// memory): the call gives the status and the outputs that it gives when b is a deep copy
// of a, or refuses the sharing with `refusal` and changes nothing. The outputs are the
// arrays that the call with a deep copy changes; an input sharing memory with an output
// shows the output's values and is not compared.
inline void expect_same_on_shared_storage(const family_row& row, int refusal) {
  constexpr std::size_t count = std::tuple_size<decltype(arrays(std::declval<scene&>()))>::value;
  auto deep_copy = [](scene& from) {
    scene to;
    each_pair(arrays(from), arrays(to), [](auto& x, auto& y, std::size_t) { y.copy(x); });
    to.detector = from.detector, to.element = from.element, to.scalar = from.scalar;
    return to;
  };
  for (std::size_t a = 0; a < count; ++a)
    for (std::size_t b = 0; b < count; ++b) {
      if (a == b) continue;
      bool paired = false;
      auto pair_up = [&](scene& s, bool shallow) {
        const auto t = arrays(s);
        each_field(t, [&](auto& fa, std::size_t i) {
          each_field(t, [&](auto& fb, std::size_t k) {
            if constexpr (std::is_same_v<decltype(fa), decltype(fb)>)
              if (i == a && k == b) {
                paired = true;
                if (shallow)
                  fb = fa;
                else
                  fb.copy(fa);
              }
          });
        });
      };
      scene deep = row.make(), shared = row.make();
      pair_up(deep, false);
      if (!paired) continue;
      pair_up(shared, true);
      scene deep_before = deep_copy(deep), shared_before = deep_copy(shared);
      const int expected = row.call(deep), status = row.call(shared);
      const std::string where = std::string(row.name) + ": " + field_names[b] + " sharing " + field_names[a];
      if (status == refusal && expected != refusal) {
        expect_same(shared, shared_before, where + " (refused)");
        continue;
      }
      EXPECT_EQ(status, expected) << where;
      bool output[std::tuple_size<decltype(fields(deep))>::value] = {};  // per field: changed by the call
      each_pair(arrays(deep), arrays(deep_before),
                [&](const auto& x, const auto& y, std::size_t k) { output[k] = !same(x, y); });
      each_pair(fields(shared), fields(deep), [&](const auto& x, const auto& y, std::size_t k) {
        const bool input_under_output = (k == a && output[b] && !output[a]) || (k == b && output[a] && !output[b]);
        if (!input_under_output) {
          EXPECT_TRUE(same(x, y)) << where << ": " << field_names[k] << " differs";
        }
      });
    }
}

}  // namespace tessel3d_test
