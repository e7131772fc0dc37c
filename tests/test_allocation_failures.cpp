// Resource limits of every family: each allocation a call makes fails in turn, and
// hostile sizes (counts near 2^32, tiny layer sizes, tangled adjacencies, crowded nodes)
// end with a status instead of a hang, an overflow or an attempt to obtain unbounded
// memory.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <new>
#include <random>
#include <set>
#include <string>
#include <utility>

#include "box_mesh.h"
#include "failing_allocator.h"
#include "family_table.h"
#include "zel/tessel.h"
#include "zel/tessel3d.h"

namespace {

using namespace tessel3d_test;

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
  long setup = 0, failures = 0;
  {
    failing_allocator counter;
    const scene s = row.make(), entry = row.make();
    setup = counter.allocations();
  }
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
        expect_same(s, reference, "after the call that met no failure");
      }
    }
    EXPECT_EQ(guard.live_blocks(), 0) << "leak after allocation " << n << " of the call failed";
    if (!reached || HasFailure()) break;  // one broken round says enough
  }
  // These need no memory: flips and volume work in place, the angle measures keep the
  // values of one element on the stack.
  static const std::set<std::string> allocate_nothing = {"flip", "volume", "dihedral_angles", "solid_angles"};
  if (!allocate_nothing.count(row.name)) {
    EXPECT_GT(failures, 0) << "the call allocates nothing";
  }
}

INSTANTIATE_TEST_SUITE_P(every_family, allocation_failures, ::testing::ValuesIn(family_table()),
                         [](const ::testing::TestParamInfo<family_row>& row) { return std::string(row.param.name); });

// ---- memory from outside the library's allocator ---------------------------------------------

// Every block the library uses must come from the replaceable allocator, so that the sweep
// above reaches it and users' memory accounting sees it: the global operator new of this
// program counts the calls made while `counting` is set.
std::atomic<bool> counting{false};
std::atomic<long> outside_blocks{0};

void* counted_block(std::size_t bytes) noexcept {
  if (counting) ++outside_blocks;
  return std::malloc(bytes ? bytes : 1);
}

TEST(outside_memory, no_family_allocates_with_operator_new) {
  for (const family_row& row : family_table()) {
    scene s = row.make();
    counting = true;
    row.call(s);
    counting = false;
    EXPECT_EQ(outside_blocks.exchange(0), 0) << row.name;
  }
  // A node in every element: its bucket of faces is too large for the hashed pairing and
  // is sorted instead.
  std::mt19937 random(3);
  dense2D<unsigned> connect(4, 3000), neighbors;
  for (std::size_t j = 0; j < connect.cols(); ++j) {
    connect(0, j) = 0;
    for (unsigned r = 1; r < 4; ++r) connect(r, j) = 1 + unsigned(random() % 40);
  }
  counting = true;
  EXPECT_EQ(zel::tessel::get_neighbors(connect, zel::TH4, neighbors), 0);
  counting = false;
  EXPECT_EQ(outside_blocks.exchange(0), 0) << "get_neighbors on a crowded node";
}

// ---- hostile sizes ---------------------------------------------------------------------------

// Refuses every request above 64 MiB, as a machine without that memory would, and counts
// the refusals: a hostile size then ends in the library's -199 path instead of taking the
// machine's memory, and a test can tell a call that tried to size its outputs (one
// refusal or more) from one that refused the size before asking (none).
class capped_allocator {
 public:
  capped_allocator() {
    refused = 0;
    previous_ = zel::set_vector_num_allocator(&allocate, &release);
  }
  ~capped_allocator() { zel::set_vector_num_allocator(previous_.first, previous_.second); }
  capped_allocator(const capped_allocator&) = delete;
  capped_allocator& operator=(const capped_allocator&) = delete;
  long refusals() const { return refused; }

 private:
  inline static std::atomic<long> refused{0};
  static void* allocate(std::size_t bytes) {
    if (bytes <= (std::size_t(64) << 20)) return std::malloc(bytes ? bytes : 1);
    ++refused;
    return nullptr;
  }
  static void release(void* memory) { std::free(memory); }
  std::pair<zel::vector_num_alloc_fn, zel::vector_num_free_fn> previous_;
};

constexpr unsigned max_unsigned = std::numeric_limits<unsigned>::max();

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

// Each call refuses its size with -199 before it allocates anything big, leaving every
// output as it was: N * #surface nodes + #nodes >= 2^32, L / h >= 2^32 (tiny sizes, huge
// turns and shifts), or an infinite or undefined length.
TEST(bounds, layer_counts_that_cannot_be_represented_give_minus_199_before_anything_is_written) {
  int (*const calls[])(scene&) = {
      [](scene& s) { return t3::extrude_translate(s.coords, s.connect, lift, max_unsigned, s.E, s.E2, s.Q4, s.Top); },
      [](scene& s) { return t3::extrude_normal(s.coords, s.connect, s.reals_in, max_unsigned / 4, s.E); },
      [](scene& s) { return t3::extrude_normal(s.coords, s.connect, 1.0, max_unsigned, s.E); },
      [](scene& s) { return t3::extrude_translate(s.coords, s.connect, lift, 1e-300, 1e-300, false, s.E); },
      [](scene& s) { return t3::extrude_translate(s.coords, s.connect, lift, 2.3e-10, 2.3e-10, true, s.E); },
      [](scene& s) {
        return t3::extrude_rotate(s.coords, s.connect, axis_point, vec3(0, 1e300, 0), 0.5, 2.0, false, s.E);
      },
      [](scene& s) {
        return t3::extrude_spiral(s.coords, s.connect, axis_point, lift, vec3(0, 0, 1e300), 1.0, 1.0, false, s.E);
      },
      [](scene& s) { return t3::extrude_normal(s.coords, s.connect, 1e300, 1.0, 2.0, false, s.E, s.E2, s.Q4, s.Top); },
      [](scene& s) {
        return t3::extrude_spiral(s.coords, s.connect, axis_point, lift, vec3(0, 0, NAN), 1.0, 1.0, false, s.E);
      },
      [](scene& s) {
        return t3::extrude_rotate(s.coords, s.connect, vec3(INFINITY, 0, 0), lift, 1.0, 1.0, false, s.E);
      },
  };
  for (std::size_t k = 0; k < std::size(calls); ++k) {
    SCOPED_TRACE("call " + std::to_string(k));
    scene s = surface();
    const scene entry = surface();
    capped_allocator cap;
    failing_allocator counter;  // counts without failing
    EXPECT_EQ(calls[k](s), -199);
    EXPECT_EQ(cap.refusals(), 0);
    EXPECT_LT(counter.peak_bytes(), 1 << 16);
    expect_same(s, entry, "after the refused size");
  }
}

// Node IDs stop below the absent marker: when the new nodes fit, the call goes on to
// size coords (which this machine refuses), else it refuses them before asking.
TEST(bounds, node_ids_stop_below_the_absent_marker) {
  const scene plain = surface();             // 9 surface nodes: one layer needs 9 IDs
  for (const std::size_t room : {9u, 8u}) {  // 9 more IDs fit below ~0U, 8 do not
    claimed_coords coords(plain.coords, std::size_t(max_unsigned) - room);
    scene s = surface(), entry = surface();
    s.coords = entry.coords = coords.view;
    capped_allocator cap;
    EXPECT_EQ(t3::extrude_translate(s.coords, s.connect, lift, 1u, s.E, s.E2, s.Q4, s.Top), -199);
    EXPECT_EQ(cap.refusals() > 0, room == 9) << room;
    EXPECT_TRUE(s.coords.data() == coords.memory.data() && s.coords.cols() == entry.coords.cols());
    s.coords = entry.coords = dense2D<double>();  // not compared entry by entry: 2^32 columns
    expect_same(s, entry, "rolled back");
  }
  const dense2D<double> tetrahedron(3, 4, {0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1});
  for (const unsigned e : {2u, 3u}) {  // 6 e new edge nodes; 13 IDs are left below ~0U
    claimed_coords coords(tetrahedron, std::size_t(max_unsigned) - 13);
    dense2D<double> c = coords.view;
    dense2D<unsigned> high(1, 1, 7u), none;
    capped_allocator cap;
    EXPECT_EQ(
        t3::convert_into_high_order(c, dense2D<unsigned>(4, 1, {0, 1, 2, 3}), e, 0, 0, 0, 0, 0, 0, high, none, none),
        -199);
    EXPECT_EQ(cap.refusals() > 0, e == 2) << e;
    EXPECT_EQ(high.rows() * high.cols(), 0u);
    EXPECT_TRUE(c.data() == coords.memory.data() && c.cols() == coords.view.cols());
  }
}

// Counts up to 2^32 - 1 per edge, face or element ask for outputs the machine does not
// have: -199 with the result cleared and coords as it was, never a wrapped row count.
TEST(bounds, huge_node_counts_of_the_conversion_give_minus_199) {
  const unsigned q = 65535u * 65535u, cases[4][7] = {{max_unsigned, 0, 0, 0, 0, 0, 0},
                                                     {0, q, 0, 0, 0, 0, 0},
                                                     {0, 0, 0, 0, 0, max_unsigned, 0},
                                                     {max_unsigned, q, 3, 27, 1, max_unsigned, 1}};
  for (const auto& c : cases) {
    scene s = every_solid_kind();
    const scene entry = every_solid_kind();
    capped_allocator cap;
    EXPECT_EQ(t3::convert_into_high_order(s.coords, s.connect, c[0], c[1], c[2], c[3], c[4], c[5], c[6], s.out, s.faces,
                                          s.edges),
              -199);
    EXPECT_GT(cap.refusals(), 0);
    EXPECT_EQ(s.out.rows() * s.out.cols(), 0u);
    EXPECT_TRUE(same(s.coords, entry.coords));
  }
}

// A face adjacency that sends every walk round a cycle through all the elements, and one
// drawn at random: every search ends, with a status, within its step limits.
TEST(bounds, walks_on_a_tangled_adjacency_end) {
  const scene s = free_nodes(false);
  const std::size_t nb_elements = s.connect.cols();
  dense2D<unsigned> cycle(4, nb_elements), random_links(4, nb_elements);
  random_stream random(3);
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
    EXPECT_EQ(t3::interpolate(s.coords, s.connect, *neighbors, s.node_element, field, s.ids), 0);
  }
}

// The interpolations' node search over 400000 coincident nodes, all in one point of its
// integer grid: it must end, with the values of a nearest mesh node.
TEST(bounds, node_search_over_coincident_nodes) {
  const unsigned nb_nodes = 400000;
  dense2D<double> coords(3, nb_nodes + 1, 0.5);
  coords(0, nb_nodes) = 0.75;  // the node to fill, off the crowd
  dense2D<unsigned> connect(4, nb_nodes / 4);
  dense1D<unsigned, 8> node_element(nb_nodes + 1, ~0U), nodes = {nb_nodes};
  for (unsigned k = 0; k < nb_nodes; ++k) connect.data()[k] = k, node_element[k] = k / 4;
  dense1D<double, 8> field(nb_nodes + 1, 3.0), sizes;
  field[nb_nodes] = -1;
  sizes.copy(field);
  sizes[nb_nodes] = 0;
  const dense2D<unsigned> neighbors(4, nb_nodes / 4, ~0U);
  EXPECT_EQ(t3::interpolate(coords, connect, neighbors, node_element, field, nodes), 0);
  EXPECT_EQ(field[nb_nodes], 3.0);
  EXPECT_EQ(t3::interpolate_metrics(coords, connect, neighbors, node_element, sizes, nodes, true), 0);
  EXPECT_EQ(sizes[nb_nodes], 3.0);
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
  dense1D<unsigned, 8> node_element = {7};
  capped_allocator cap;
  EXPECT_EQ(zel::tessel::get_node_element(dense2D<unsigned>(4, 1, {0, 1, 2, 3}), max_unsigned, node_element), -199);
  EXPECT_GT(cap.refusals(), 0);
  EXPECT_EQ(node_element.size(), 1u);
}

}  // namespace

// The replacements pair malloc with free, which GCC cannot see through operator new.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void* operator new(std::size_t bytes) {
  if (void* block = counted_block(bytes)) return block;
  throw std::bad_alloc();
}
void* operator new[](std::size_t bytes) {
  if (void* block = counted_block(bytes)) return block;
  throw std::bad_alloc();
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept { return counted_block(bytes); }
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept { return counted_block(bytes); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }
