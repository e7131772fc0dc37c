// Resource limits of every family: each allocation a call makes fails in turn, and
// hostile sizes (counts near 2^32, tiny layer sizes) end with a status instead of a hang,
// an overflow or an attempt to obtain unbounded memory.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>
#include <utility>

#include "box_mesh.h"
#include "failing_allocator.h"
#include "family_table.h"
#include "locate/node_octree.h"
#include "zel/tessel.h"
#include "zel/tessel3d.h"

namespace {

using tessel3d_test::failing_allocator;
using tessel3d_test::family_row;
using tessel3d_test::scene;
using zel::dense1D;
using zel::dense2D;
using vec3 = zel::vector_fixed<double, 3>;
namespace t3 = zel::tessel3d;

// ---- the sweep -------------------------------------------------------------------------------

class allocation_failures : public ::testing::TestWithParam<family_row> {};

// The n-th allocation of the call fails, for n = 1, 2, ... until the call gets through:
// each failure must give the documented status and outputs and leak nothing, and the
// final call must give what a call without any failure gives.
TEST_P(allocation_failures, each_one_is_reported_and_leaves_the_outputs_as_documented) {
  const family_row& row = GetParam();
  scene reference = row.make();
  const int reference_status = row.call(reference);
  ASSERT_GE(reference_status, 0) << "the representative input must succeed";

  long setup = 0;
  {
    failing_allocator counter;
    const scene s = row.make(), entry = row.make();
    setup = counter.allocations();
  }
  long failures = 0;
  for (long n = 1;; ++n) {
    ASSERT_LT(n, 10000) << "the call never got through";
    failing_allocator guard(setup + n);
    bool reached = false;
    {
      scene s = row.make();
      const scene entry = row.make();
      const int status = row.call(s);
      reached = guard.failed();
      if (reached) {
        SCOPED_TRACE("allocation " + std::to_string(n) + " of the call failed");
        row.after_failure({status, reference_status, n, s, entry, reference});
        ++failures;
      } else {
        EXPECT_EQ(status, reference_status);
        tessel3d_test::expect_same(s, reference, "after the call that met no failure");
      }
    }
    EXPECT_EQ(guard.live_blocks(), 0) << "leak after allocation " << n << " of the call failed";
    if (!reached || HasFailure()) break;  // one broken round says enough
  }
  const std::string name = row.name;
  if (name != "flip" && name != "volume") {
    EXPECT_GT(failures, 0) << "the call allocates nothing";
  }
  RecordProperty("failures", static_cast<int>(failures));
}

INSTANTIATE_TEST_SUITE_P(every_family, allocation_failures, ::testing::ValuesIn(tessel3d_test::family_table()),
                         [](const ::testing::TestParamInfo<family_row>& info) { return std::string(info.param.name); });

// ---- hostile sizes ---------------------------------------------------------------------------

// Refuses every request above 64 MiB, as a machine without that memory would, and counts
// the refusals: a hostile size then ends in the library's -199 path instead of taking the
// machine's memory, and a test can tell a call that tried to size its outputs (one
// refusal or more) from one that refused the size before asking (none).
class capped_allocator {
 public:
  capped_allocator() {
    refused() = 0;
    previous_ = zel::set_vector_num_allocator(&allocate, &release);
  }
  ~capped_allocator() { zel::set_vector_num_allocator(previous_.first, previous_.second); }
  capped_allocator(const capped_allocator&) = delete;
  capped_allocator& operator=(const capped_allocator&) = delete;
  long refusals() const { return refused(); }

 private:
  static std::atomic<long>& refused() {
    static std::atomic<long> count{0};
    return count;
  }
  static void* allocate(std::size_t bytes) {
    if (bytes > (std::size_t(64) << 20)) {
      ++refused();
      return nullptr;
    }
    return std::malloc(bytes ? bytes : 1);
  }
  static void release(void* memory) { std::free(memory); }
  std::pair<zel::vector_num_alloc_fn, zel::vector_num_free_fn> previous_;
};

constexpr unsigned max_unsigned = std::numeric_limits<unsigned>::max();
constexpr double inf = std::numeric_limits<double>::infinity();

// One triangle and one quadrangle, and outputs that already hold a column each.
scene small_surface() {
  scene s;
  s.coords = dense2D<double>(3, 5, {0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0, 2, 1, 0});
  s.connect = dense2D<unsigned>(4, 2, {0, 1, 2, ~0U, 1, 3, 4, 2});
  s.E = dense2D<unsigned>(8, 1, 7u);
  s.Q4 = dense2D<unsigned>(4, 1, 7u);
  s.Top = dense2D<unsigned>(4, 1, 7u);
  s.E2 = dense2D<unsigned>(2, 1, {0, 1});
  s.reals_in = dense2D<double>(3, 5, 1.0);
  return s;
}

// A coordinates view that claims `columns` nodes over memory holding only the first
// ones: calls must read no more than the columns the connectivities name, and must not
// number a node past 2^32 - 2 (~0U is the absent marker).
struct claimed_coords {
  std::vector<double> memory;
  dense2D<double> view;
  claimed_coords(const dense2D<double>& first, std::size_t columns) : memory(3 * first.cols()) {
    for (std::size_t j = 0; j < first.cols(); ++j)
      for (int d = 0; d < 3; ++d) memory[3 * j + d] = first(d, j);
    view = dense2D<double>::wrap(memory.data(), 3, columns, 3);
  }
};

using extrusion = int (*)(scene&);

// Each call refuses its size with -199 before it allocates anything big, leaving every
// output as it was.
TEST(bounds, layer_counts_that_cannot_be_represented_give_minus_199_before_anything_is_written) {
  const vec3 up(0, 0, 1), axis(0, 0, 0), spin(0, 1e300, 0), far(0, 0, 1e300), nan3(0, 0, NAN);
  static vec3 saved[4];
  saved[0] = up, saved[1] = spin, saved[2] = far, saved[3] = nan3;
  const extrusion calls[] = {
      // N * #surface nodes + #nodes >= 2^32
      [](scene& s) {
        return t3::extrude_translate(s.coords, s.connect, saved[0], max_unsigned, s.E, s.E2, s.Q4, s.Top);
      },
      [](scene& s) {
        return t3::extrude_normal(s.coords, s.connect, s.reals_in, max_unsigned / 4, s.E, s.E2, s.Q4, s.Top);
      },
      [](scene& s) { return t3::extrude_normal(s.coords, s.connect, 1.0, max_unsigned, s.E); },
      // tiny sizes: L / h >= 2^32
      [](scene& s) { return t3::extrude_translate(s.coords, s.connect, saved[0], 1e-300, 1e-300, false, s.E); },
      [](scene& s) { return t3::extrude_translate(s.coords, s.connect, saved[0], 2.3e-10, 2.3e-10, true, s.E); },
      [](scene& s) { return t3::extrude_rotate(s.coords, s.connect, vec3(-1, 0, 0), saved[1], 0.5, 2.0, false, s.E); },
      [](scene& s) {
        return t3::extrude_spiral(s.coords, s.connect, vec3(-1, 0, 0), saved[0], saved[2], 1.0, 1.0, false, s.E);
      },
      [](scene& s) { return t3::extrude_normal(s.coords, s.connect, 1e300, 1.0, 2.0, false, s.E, s.E2, s.Q4, s.Top); },
      // an infinite or undefined length
      [](scene& s) {
        return t3::extrude_spiral(s.coords, s.connect, vec3(-1, 0, 0), saved[0], saved[3], 1.0, 1.0, false, s.E);
      },
      [](scene& s) { return t3::extrude_rotate(s.coords, s.connect, vec3(inf, 0, 0), saved[0], 1.0, 1.0, false, s.E); },
  };
  for (std::size_t k = 0; k < std::size(calls); ++k) {
    SCOPED_TRACE("call " + std::to_string(k));
    scene s = small_surface();
    const scene entry = small_surface();
    capped_allocator cap;
    failing_allocator counter;  // counts without failing
    EXPECT_EQ(calls[k](s), -199);
    EXPECT_EQ(cap.refusals(), 0);
    EXPECT_LT(counter.peak_bytes(), 1 << 16);
    tessel3d_test::expect_same(s, entry, "after the refused size");
  }
}

TEST(bounds, extrusion_node_ids_stop_below_the_absent_marker) {
  const scene surface = small_surface();     // 5 surface nodes
  for (const std::size_t room : {5u, 4u}) {  // 5 more IDs fit below ~0U, 4 do not
    SCOPED_TRACE("room for " + std::to_string(room) + " more nodes");
    claimed_coords coords(surface.coords, std::size_t(max_unsigned) - room);
    scene s = small_surface(), entry = small_surface();
    s.coords = entry.coords = coords.view;
    capped_allocator cap;
    EXPECT_EQ(t3::extrude_translate(s.coords, s.connect, vec3(0, 0, 1), 1u, s.E, s.E2, s.Q4, s.Top), -199);
    // When the IDs fit, the call goes on to size coords (which this machine refuses).
    EXPECT_EQ(cap.refusals() > 0, room == 5);
    EXPECT_TRUE(s.coords.data() == coords.memory.data() && s.coords.cols() == entry.coords.cols());
    s.coords = entry.coords = dense2D<double>();  // not compared entry by entry: 2^32 columns
    tessel3d_test::expect_same(s, entry, "rolled back");
  }
}

TEST(bounds, conversion_node_ids_stop_below_the_absent_marker) {
  const dense2D<double> tetrahedron(3, 4, {0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1});
  const dense2D<unsigned> connect(4, 1, {0, 1, 2, 3}), none;
  for (const unsigned e : {2u, 3u}) {  // 6 e new edge nodes; 13 IDs are left below ~0U
    SCOPED_TRACE("nodes per edge " + std::to_string(e));
    claimed_coords coords(tetrahedron, std::size_t(max_unsigned) - 13);
    dense2D<double> c = coords.view;
    dense2D<unsigned> high(1, 1, 7u);
    capped_allocator cap;
    EXPECT_EQ(t3::convert_into_high_order(c, connect, e, 0, 0, 0, 0, 0, 0, high, none, none), -199);
    EXPECT_EQ(cap.refusals() > 0, e == 2);  // 12 new nodes fit: sizing coords is tried
    EXPECT_EQ(high.rows() * high.cols(), 0u);
    EXPECT_TRUE(c.data() == coords.memory.data() && c.cols() == coords.view.cols());
  }
}

// Counts up to 2^32 - 1 per edge, face or element ask for outputs the machine does not
// have: -199 with the result cleared and coords as it was, never a wrapped row count.
TEST(bounds, huge_node_counts_of_the_conversion_give_minus_199) {
  struct counts {
    unsigned e, q, t, h, w, p, n;
  };
  const counts cases[] = {{max_unsigned, 0, 0, 0, 0, 0, 0},
                          {0, 65535u * 65535u, 0, 0, 0, 0, 0},
                          {0, 0, 0, 0, 0, max_unsigned, 0},
                          {max_unsigned, 65535u * 65535u, 3, 27, 1, max_unsigned, 1}};
  for (const counts& c : cases) {
    scene s = tessel3d_test::every_solid_kind();
    const scene entry = tessel3d_test::every_solid_kind();
    s.out = dense2D<unsigned>(1, 1, 7u);
    capped_allocator cap;
    EXPECT_EQ(
        t3::convert_into_high_order(s.coords, s.connect, c.e, c.q, c.t, c.h, c.w, c.p, c.n, s.out, s.faces, s.edges),
        -199);
    EXPECT_GT(cap.refusals(), 0);
    EXPECT_EQ(s.out.rows() * s.out.cols(), 0u);
    EXPECT_TRUE(tessel3d_test::same(s.coords, entry.coords));
  }
}

// A face adjacency that sends every walk round a cycle through all the elements, and one
// drawn at random: every search ends, with a status, within its step limits.
TEST(bounds, walks_on_a_tangled_adjacency_end) {
  scene s = tessel3d_test::field_input();
  const std::size_t nb_elements = s.connect.cols();
  const dense2D<unsigned> sane = s.neighbors;
  dense2D<unsigned> cycle(4, nb_elements), random_links(4, nb_elements);
  tessel3d_test::random_stream random(3);
  for (std::size_t e = 0; e < nb_elements; ++e)
    for (unsigned f = 0; f < 4; ++f) {
      cycle(f, e) = unsigned((e + 1) % nb_elements);
      random_links(f, e) = random.next() % 5 == 0 ? ~0U : unsigned(random.next() % nb_elements);
    }
  for (const dense2D<unsigned>* neighbors : {&cycle, &random_links}) {
    for (const vec3& p : {vec3(0.6, 0.3, 0.2), vec3(3, 3, 3), vec3(0.5, 0.5, 1.0)}) {
      unsigned element = 7;
      const int status = t3::get_element_containing_point(s.coords, s.connect, *neighbors, s.node_element, s.detector,
                                                          zel::TH4, p, element, 0.0);
      EXPECT_TRUE(status == 1 || status == 0) << status;
      EXPECT_EQ(element == ~0U, status != 1);
    }
    dense1D<double, 8> field = s.values;
    EXPECT_EQ(t3::interpolate(s.coords, s.connect, *neighbors, s.node_element, field, s.ids), 0)
        << (neighbors == &cycle ? "cycle" : "random");
  }
  // The true adjacency finds a point inside (away from the free nodes, which give no seed).
  unsigned element = 7;
  EXPECT_EQ(t3::get_element_containing_point(s.coords, s.connect, sane, s.node_element, s.detector, zel::TH4,
                                             vec3(0.6, 0.3, 0.2), element, 0.0),
            1);
}

// The interpolations' node search over meshes whose nodes crowd into one point of its
// integer grid: many coincident nodes, and a node at infinity (which squeezes every
// finite node into one cell). Each must end with values from the nearest mesh node.
struct crowded_mesh {
  dense2D<double> coords;
  dense2D<unsigned> connect, neighbors;
  dense1D<unsigned, 8> node_element, nodes;
  dense1D<double, 8> field;
};

crowded_mesh coincident_nodes(unsigned nb_elements) {
  crowded_mesh m;
  const unsigned nb_nodes = 4 * nb_elements;
  m.coords = dense2D<double>(3, nb_nodes + 1, 0.5);
  m.coords(0, nb_nodes) = 0.75;  // the node to fill, off the crowd
  m.connect.resize(4, nb_elements);
  for (unsigned k = 0; k < nb_nodes; ++k) m.connect.data()[k] = k;
  m.neighbors = dense2D<unsigned>(4, nb_elements, ~0U);
  m.node_element.resize(nb_nodes + 1, ~0U);
  for (unsigned k = 0; k < nb_nodes; ++k) m.node_element[k] = k / 4;
  m.nodes = {nb_nodes};
  m.field = dense1D<double, 8>(nb_nodes + 1, 3.0);
  m.field[nb_nodes] = -1;
  return m;
}

TEST(bounds, node_search_over_coincident_nodes) {
  crowded_mesh m = coincident_nodes(100000);
  const unsigned filled = unsigned(m.coords.cols() - 1);
  EXPECT_EQ(t3::interpolate(m.coords, m.connect, m.neighbors, m.node_element, m.field, m.nodes), 0);
  EXPECT_EQ(m.field[filled], 3.0);
  dense1D<double, 8> sizes = m.field;
  sizes[filled] = 0;
  EXPECT_EQ(t3::interpolate_metrics(m.coords, m.connect, m.neighbors, m.node_element, sizes, m.nodes, true), 0);
  EXPECT_EQ(sizes[filled], 3.0);
}

// One node far away (infinite, NaN, or finite but huge, which squeezes every other node
// into one integer position of the grid): the search must stay exact, and the search of
// a point on a node must give that node.
TEST(bounds, node_search_with_a_far_outlier) {
  const tessel3d_test::box_mesh box = tessel3d_test::make_box(tessel3d_test::box_kind::TH4, 8, 8, 8, 1, 1, 1, 0.2);
  const char* names[] = {"+infinity", "-infinity", "NaN", "1e300"};
  const double outliers[] = {inf, -inf, double(NAN), 1e300};
  for (int o = 0; o < 4; ++o) {
    const double outlier = outliers[o];
    SCOPED_TRACE(std::string("outlier ") + names[o]);
    dense2D<double> coords;
    ASSERT_TRUE(coords.copy(box.coords));
    coords(0, 0) = outlier;
    elfes::node_octree tree;
    ASSERT_EQ(tree.build(coords, box.connect), 0);
    tessel3d_test::random_stream random(8);
    for (int trial = 0; trial < 300; ++trial) {
      const unsigned m = 1 + unsigned(random.next() % (coords.cols() - 1));
      const vec3 on_node(coords(0, m), coords(1, m), coords(2, m));
      const vec3 p = trial % 2 ? on_node : vec3(random.uniform(-0.5, 1.5), random.uniform(), random.uniform());
      double best = inf;
      for (std::size_t n = 1; n < coords.cols(); ++n) {
        const double dx = coords(0, n) - p[0], dy = coords(1, n) - p[1], dz = coords(2, n) - p[2];
        best = std::min(best, dx * dx + dy * dy + dz * dz);
      }
      const unsigned closest = tree.find_closest(p);
      ASSERT_LT(closest, coords.cols());
      const double dx = coords(0, closest) - p[0], dy = coords(1, closest) - p[1], dz = coords(2, closest) - p[2];
      EXPECT_EQ(dx * dx + dy * dy + dz * dz, best);
      if (trial % 2) {
        EXPECT_EQ(tree.find_close(p), m);
      }
    }
  }
}

// Node IDs and adjacency entries that the interpolations would read coordinates or
// elements through are refused as invalid connectivity (-2) and neighbors (-3).
TEST(bounds, interpolations_refuse_ids_they_would_read_through) {
  const scene good = tessel3d_test::field_input();
  const unsigned nb_nodes = unsigned(good.coords.cols()), nb_elements = unsigned(good.connect.cols());
  for (const unsigned bad : {nb_nodes, 1000000000u, ~0U}) {
    scene s = tessel3d_test::field_input();
    ASSERT_TRUE(s.connect.copy(good.connect));
    s.connect(2, 5) = bad;
    dense1D<double, 8> field = s.values;
    EXPECT_EQ(t3::interpolate(s.coords, s.connect, s.neighbors, s.node_element, field, s.ids), -2);
    EXPECT_EQ(t3::interpolate_metrics(s.coords, s.connect, s.neighbors, s.node_element, field, s.ids, false), -2);
  }
  for (const unsigned bad : {nb_elements, 1000000000u}) {
    scene s = tessel3d_test::field_input();
    ASSERT_TRUE(s.neighbors.copy(good.neighbors));
    s.neighbors(1, 3) = bad;
    dense1D<double, 8> field = s.values;
    EXPECT_EQ(t3::interpolate(s.coords, s.connect, s.neighbors, s.node_element, field, s.ids), -3);
    EXPECT_EQ(t3::interpolate_metrics(s.coords, s.connect, s.neighbors, s.node_element, s.reals_out, s.ids, false), -3);
    EXPECT_TRUE(tessel3d_test::same(field, good.values));
  }
}

// The adjacency helpers number elements and nodes in 32 bits: a mesh past that range is
// refused with -199 before it is read, and a node count of 2^32 - 1 asks for memory the
// machine refuses rather than for a wrapped size.
TEST(bounds, adjacency_helpers_at_the_32_bit_limit) {
  std::vector<unsigned> memory(8, 0);
  const dense2D<unsigned> claimed = dense2D<unsigned>::wrap(memory.data(), 4, std::size_t(max_unsigned), 4);
  dense2D<unsigned> neighbors(1, 1, 7u);
  EXPECT_EQ(zel::tessel::get_neighbors(claimed, zel::TH4, neighbors), -199);
  EXPECT_EQ(neighbors.rows() * neighbors.cols(), 1u);
  const dense2D<unsigned> one(4, 1, {0, 1, 2, 3});
  dense1D<unsigned, 8> node_element = {7};
  capped_allocator cap;
  EXPECT_EQ(zel::tessel::get_node_element(one, max_unsigned, node_element), -199);
  EXPECT_GT(cap.refusals(), 0);
  EXPECT_EQ(node_element.size(), 1u);
}

}  // namespace
