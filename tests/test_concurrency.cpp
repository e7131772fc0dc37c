// Threads: the families that cut their work into chunks give on any thread count the
// bits of one thread, on meshes of several chunks, and the count follows the process's
// affinity mask by default.
// Buffers: every family runs in four threads at once on inputs that share one set of
// buffers (shallow copies), each thread with outputs of its own, and every thread must
// get what a call alone gets while the shared buffers stay as they were (run under
// ThreadSanitizer by `make test-tsan`); and every family gives on views whose leading
// dimension exceeds their rows what it gives on plain matrices.
#include <gtest/gtest.h>

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "box_mesh.h"
#include "failing_allocator.h"
#include "family_table.h"
#include "zel/tessel.h"
#include "zel/tessel3d.h"

namespace {

using tessel3d_test::family_row;
using tessel3d_test::scene;
using vec3 = zel::vector_fixed<double, 3>;

constexpr int nb_threads = 4;

// Starts every thread's work at the same moment, so that the calls overlap.
class start_line {
 public:
  void arrive_and_wait() {
    waiting_.fetch_add(1);
    while (waiting_.load() < nb_threads) std::this_thread::yield();
  }

 private:
  std::atomic<int> waiting_{0};
};

// A thread's scene: the shared inputs as shallow copies (in-out coordinates and in-place
// connectivities included: growing or converting them must detach), the pure outputs as
// copies of its own.
scene thread_scene(const family_row& row, const scene& shared) {
  scene mine = shared;
  auto own = [](auto&... m) { (m.copy(m), ...); };  // a deep copy of itself: a buffer of its own
  own(mine.out, mine.E, mine.Q4, mine.Top, mine.reals_out, mine.ids_out, mine.values, mine.min_values, mine.max_values);
  // simplify closes the gaps by moving columns down inside the buffer of coords (so that
  // it never allocates): that buffer is written, so each thread needs one of its own.
  if (std::string(row.name) == "simplify") own(mine.coords);
  return mine;
}

class concurrent_calls : public ::testing::TestWithParam<family_row> {};

TEST_P(concurrent_calls, match_a_call_alone_and_leave_the_shared_inputs_alone) {
  const family_row& row = GetParam();
  scene alone = row.make();
  const int alone_status = row.call(alone);
  const scene shared = row.make(), pristine = row.make();

  std::vector<scene> results(nb_threads);
  std::vector<int> statuses(nb_threads, 1000);
  start_line start;
  std::vector<std::thread> threads;
  for (int t = 0; t < nb_threads; ++t)
    threads.emplace_back([&, t] {
      scene mine = thread_scene(row, shared);
      start.arrive_and_wait();
      statuses[t] = row.call(mine);
      results[t] = mine;
    });
  for (std::thread& thread : threads) thread.join();

  for (int t = 0; t < nb_threads; ++t) {
    EXPECT_EQ(statuses[t], alone_status) << "thread " << t;
    tessel3d_test::expect_same(results[t], alone, "thread " + std::to_string(t));
  }
  tessel3d_test::expect_same(shared, pristine, "shared inputs");
}

INSTANTIATE_TEST_SUITE_P(every_family, concurrent_calls, ::testing::ValuesIn(tessel3d_test::family_table()),
                         [](const ::testing::TestParamInfo<family_row>& row) { return std::string(row.param.name); });

class padded_views : public ::testing::TestWithParam<family_row> {};

TEST_P(padded_views, give_what_plain_matrices_give_and_leave_the_padding_alone) {
  tessel3d_test::expect_same_on_views(GetParam());
}

INSTANTIATE_TEST_SUITE_P(every_family, padded_views, ::testing::ValuesIn(tessel3d_test::family_table()),
                         [](const ::testing::TestParamInfo<family_row>& row) { return std::string(row.param.name); });

class shared_storage : public ::testing::TestWithParam<family_row> {};

TEST_P(shared_storage, an_array_sharing_another_gives_what_a_copy_gives) {
  // The documented refusals of outputs that share memory (1: none).
  const std::string name = GetParam().name;
  const int refusal = name.rfind("dihedral_angles", 0) == 0 || name.rfind("solid_angles", 0) == 0 ? -5
                      : name.rfind("split_solid_Q4", 0) == 0                                      ? -6
                      : name == "duplicate_surface_nodes"                                         ? -2
                                                                                                  : 1;
  tessel3d_test::expect_same_on_shared_storage(GetParam(), refusal);
}

INSTANTIATE_TEST_SUITE_P(every_family, shared_storage, ::testing::ValuesIn(tessel3d_test::family_table()),
                         [](const ::testing::TestParamInfo<family_row>& row) { return std::string(row.param.name); });

// One array passed as an input and as an output: the call gives what it gives when the
// input is a private copy (`apart`), or refuses with `refusal` and changes nothing.
TEST(shared_storage, one_array_as_input_and_output) {
  using namespace tessel3d_test;
  namespace t3 = zel::tessel3d;
  using zel::dense2D;
  struct same_array_case {
    const char* name;
    scene (*make)();
    int (*same)(scene&);
    int (*apart)(scene&);  // nullptr: refused
    int refusal;
  };
  static const vec3 lift(0, 0, 1);
  const same_array_case cases[] = {
      {"circumcenters", tetrahedra, [](scene& s) { return t3::circumcenters(s.coords, s.connect, s.coords); },
       [](scene& s) {
         dense2D<double> x;
         x.copy(s.coords);
         return t3::circumcenters(x, s.connect, s.coords);
       },
       0},
      {"convert_into_high_order", every_solid_kind,
       [](scene& s) {
         return t3::convert_into_high_order(s.coords, s.connect, 2, 4, 3, 8, 1, 2, 1, s.connect, s.faces, s.edges);
       },
       [](scene& s) {
         dense2D<unsigned> c;
         c.copy(s.connect);
         return t3::convert_into_high_order(s.coords, c, 2, 4, 3, 8, 1, 2, 1, s.connect, s.faces, s.edges);
       },
       0},
      {"split_into_H8", hexahedra_with_caller_nodes,
       [](scene& s) { return t3::split_into_H8(s.coords, s.connect, s.connect, {}, {}); },
       [](scene& s) {
         dense2D<unsigned> c;
         c.copy(s.connect);
         return t3::split_into_H8(s.coords, c, s.connect, {}, {});
       },
       0},
      {"split_solid_Q4", split_q4_input,
       [](scene& s) { return t3::split_solid_Q4(s.coords, s.connect, s.faces, 0.05, s.connect, s.ids_out); },
       [](scene& s) {
         dense2D<unsigned> c;
         c.copy(s.connect);
         return t3::split_solid_Q4(s.coords, c, s.faces, 0.05, s.connect, s.ids_out);
       },
       0},
      {"extrude_translate", surface,
       [](scene& s) { return t3::extrude_translate(s.coords, s.connect, lift, 3, s.E, s.E2, s.connect, s.Top); },
       [](scene& s) {
         dense2D<unsigned> c;
         c.copy(s.connect);
         return t3::extrude_translate(s.coords, c, lift, 3, s.E, s.E2, s.connect, s.Top);
       },
       0},
      {"interpolate", field_input,
       [](scene& s) { return t3::interpolate(s.coords, s.connect, s.neighbors, s.node_element, s.coords, s.ids); },
       [](scene& s) {
         dense2D<double> x;
         x.copy(s.coords);
         return t3::interpolate(x, s.connect, s.neighbors, s.node_element, s.coords, s.ids);
       },
       0},
      {"get_elements_containing_points", points_input,
       [](scene& s) {
         return t3::get_elements_containing_points(s.coords, s.connect, s.neighbors, s.node_element, s.detector,
                                                   zel::TH4, s.reals_in, s.node_element, 0.0);
       },
       [](scene& s) {
         zel::dense1D<unsigned, 8> e;
         e.copy(s.node_element);
         return t3::get_elements_containing_points(s.coords, s.connect, s.neighbors, e, s.detector, zel::TH4,
                                                   s.reals_in, s.node_element, 0.0);
       },
       0},
      {"dihedral_angles", every_solid_kind,
       [](scene& s) { return t3::dihedral_angles(s.coords, s.connect, true, s.min_values, s.min_values); }, nullptr,
       -5},
      {"solid_angles", every_solid_kind,
       [](scene& s) { return t3::solid_angles(s.coords, s.connect, true, s.max_values, s.max_values); }, nullptr, -5},
      {"split_solid_Q4_outputs", split_q4_input,
       [](scene& s) {
         zel::dense1D<unsigned, 8> failed = s.out.as_vector();
         return t3::split_solid_Q4(s.coords, s.connect, s.faces, 0.05, s.out, failed);
       },
       nullptr, -6},
  };
  for (const same_array_case& c : cases) {
    scene same = c.make(), apart = c.make();
    const scene entry = c.make();
    const int status = c.same(same);
    if (!c.apart) {
      EXPECT_EQ(status, c.refusal) << c.name;
      expect_same(same, entry, std::string(c.name) + " refused");
      continue;
    }
    EXPECT_EQ(status, c.apart(apart)) << c.name;
    expect_same(same, apart, c.name);
  }
}

// ---- thread counts ----------------------------------------------------------------------------

// Meshes larger than several chunks of every parallel loop (the largest chunk holds 2^16
// elements), mixed layouts included, and a surface whose faces, edges and nodes span
// several chunks of the extrusions.
namespace t3 = zel::tessel3d;
using tessel3d_test::box_kind;
using tessel3d_test::make_box;

scene big_box(box_kind kind, unsigned n) { return tessel3d_test::from_box(make_box(kind, n, n, n, 1, 1, 1, 0.2)); }
scene big_surface() {
  const unsigned n = 90;  // 8100 faces, 8281 nodes, 8190 edges
  scene s = tessel3d_test::from_box(make_box(box_kind::H8, n, n, 1, 1, 1, 0.01, 0.2));
  s.connect = s.connect.sub_matrix(0, 0, 4, s.connect.cols());  // the bottom quadrangles
  s.E2.resize(2, n * (n + 1));
  for (unsigned row = 0, e = 0; row <= n; ++row)
    for (unsigned i = 0; i < n; ++i, ++e) {
      s.E2(0, e) = row * (n + 1) + i;
      s.E2(1, e) = row * (n + 1) + i + 1;
    }
  return s;
}
// 27-row mixed quadratic columns, TH10, PY13, W15 and H27 in turn (only the padding
// tells the kinds apart; the IDs are not read).
scene big_quadratic() {
  scene s;
  const unsigned sizes[4] = {10, 13, 15, 27};
  s.connect.resize(27, 70000, ~0U);
  for (unsigned j = 0; j < 70000; ++j)
    for (unsigned i = 0; i < sizes[j % 4]; ++i) s.connect(i, j) = 27 * j + i;
  return s;
}

// 10^4 points around a TH4 box of 24,576 elements, some outside it.
scene big_search() {
  scene s = big_box(box_kind::TH4, 16);
  zel::tessel::get_neighbors(s.connect, zel::TH4, s.neighbors);
  zel::tessel::get_node_element(s.connect, unsigned(s.coords.cols()), s.node_element);
  s.detector = zel::tessel::node_detector(s.coords);
  tessel3d_test::random_stream random(9);
  s.reals_in.resize(3, 10000);
  for (std::size_t j = 0; j < s.reals_in.cols(); ++j)
    for (int d = 0; d < 3; ++d) s.reals_in(d, j) = random.uniform(-0.1, 1.1);
  return s;
}

// A TH4 box with a few nodes moved onto their neighbours (flat and collapsed elements in
// several chunks), for the angle measures and the list of degenerate elements.
scene big_angles(box_kind kind, unsigned n) {
  scene s = big_box(kind, n);
  for (std::size_t k = 1; k + 1 < s.coords.cols(); k += 331)
    for (int d = 0; d < 3; ++d) s.coords(d, k) = s.coords(d, k + 1);
  s.min_values.resize(s.connect.cols());
  s.max_values.resize(s.connect.cols());
  return s;
}

// Free nodes after the nodes of a TH4 box (inside, outside, one not finite, a few listed
// twice), with a linear field (2 rows), metric tensors (6 rows) and sizes on the mesh.
scene big_free_nodes(bool metrics) {
  scene s = big_box(box_kind::TH4, 12);
  const unsigned m = unsigned(s.coords.cols()), extra = 6000;
  s.coords.resize(3, m + extra);
  tessel3d_test::random_stream random(4);
  for (unsigned k = 0; k < extra; ++k)
    for (int d = 0; d < 3; ++d) s.coords(d, m + k) = random.uniform(-0.2, 1.2);
  s.coords(1, m + 17) = NAN;
  zel::tessel::get_neighbors(s.connect, zel::TH4, s.neighbors);
  zel::tessel::get_node_element(s.connect, m + extra, s.node_element);
  s.ids.resize(extra + 3);
  for (unsigned k = 0; k < extra; ++k) s.ids[k] = m + extra - 1 - k;
  for (unsigned k = 0; k < 3; ++k) s.ids[extra + k] = m + 1000 * k;
  s.reals_out = zel::dense2D<double>(metrics ? 6 : 2, m + extra, metrics ? 0.0 : 7.0);
  s.values = zel::dense1D<double, 8>(m + extra, metrics ? 0.0 : 7.0);
  for (unsigned n = 0; n < m; ++n) {
    const double x = s.coords(0, n), y = s.coords(1, n), z = s.coords(2, n);
    const double field[6] = {x - 2 * y + 3 * z, x * y}, tensor[6] = {4 + x, 0.5 * y, 3 + z, 0.1, 0.2 * x, 2 + y};
    s.values[n] = 1 + x + 2 * y + z;
    for (std::size_t k = 0; k < s.reals_out.rows(); ++k) s.reals_out(k, n) = metrics ? tensor[k] : field[k];
  }
  return s;
}
scene big_field() { return big_free_nodes(false); }
scene big_metrics() { return big_free_nodes(true); }
scene big_points() {
  scene s = big_box(box_kind::TH4, 16);
  tessel3d_test::random_stream random(8);
  s.reals_in.resize(3, 9000);
  for (std::size_t j = 0; j < s.reals_in.cols(); ++j)
    for (int d = 0; d < 3; ++d) s.reals_in(d, j) = random.uniform(-0.1, 1.1);
  return s;
}

// 70,000 nodes on a coarse grid (many at one place: ties), and points to query.
scene big_cloud() {
  scene s;
  tessel3d_test::random_stream random(12);
  s.coords.resize(3, 70000);
  for (std::size_t j = 0; j < s.coords.cols(); ++j)
    for (int d = 0; d < 3; ++d) s.coords(d, j) = std::floor(random.uniform(0, 50)) / 50;
  s.reals_in.resize(3, 3000);
  for (std::size_t j = 0; j < s.reals_in.cols(); ++j)
    for (int d = 0; d < 3; ++d) s.reals_in(d, j) = random.uniform(-0.1, 1.1);
  return s;
}
// The detector's answers, which depend on the shape of its tree (find_close) or not; a
// build that ran out of memory leaves an empty detector: -199.
int query_detector(scene& s) {
  s.detector = zel::tessel::node_detector(s.coords);
  if (s.detector.size() != s.coords.cols()) return -199;
  if (!s.ids_out.resize(2 * s.reals_in.cols())) return -199;
  for (std::size_t j = 0; j < s.reals_in.cols(); ++j) {
    const vec3 p(s.reals_in(0, j), s.reals_in(1, j), s.reals_in(2, j));
    s.ids_out[2 * j] = s.detector.find_close(p);
    s.ids_out[2 * j + 1] = s.detector.find_closest(p);
  }
  return 0;
}

// A TH4 box cut by the grid plane x = 1/2 (its faces as seen from the elements on the
// left, nodes of the box's edges included), to open on both sides.
scene big_cut() {
  const unsigned n = 24, cut = n / 2;
  scene s = big_box(box_kind::TH4, n);
  zel::tessel::get_neighbors(s.connect, zel::TH4, s.neighbors);
  zel::tessel::get_node_element(s.connect, unsigned(s.coords.cols()), s.node_element);
  auto plane = [&](unsigned node) { return node % (n + 1); };                          // the grid index along x
  static const unsigned face_of[4][3] = {{1, 2, 3}, {2, 0, 3}, {0, 1, 3}, {2, 1, 0}};  // opposite vertex v
  std::vector<unsigned> faces;
  for (std::size_t e = 0; e < s.connect.cols(); ++e)
    for (unsigned v = 0; v < 4; ++v) {
      bool on_cut = true;
      for (unsigned k = 0; k < 3; ++k) on_cut &= plane(s.connect(face_of[v][k], e)) == cut;
      if (!on_cut || plane(s.connect(v, e)) > cut) continue;
      for (unsigned k = 0; k < 3; ++k) faces.push_back(s.connect(face_of[v][k], e));
    }
  s.faces.resize(3, faces.size() / 3);
  std::copy(faces.begin(), faces.end(), s.faces.data());
  return s;
}

#define BIG_ROW(name, make, ...)                              \
  family_row {                                                \
    name, make, nullptr, [](scene& s) { return __VA_ARGS__; } \
  }
const vec3 lift(0, 0, 0.5), axis(-1, 0, 0), turn(0, -0.5, 0);
const std::vector<family_row>& chunked_families() {
  static const std::vector<family_row> rows = {
      BIG_ROW(
          "flip_H8", [] { return big_box(box_kind::H8, 42); }, t3::flip(s.connect, zel::H8)),
      BIG_ROW(
          "flip_halves", [] { return big_box(box_kind::H8, 42); }, t3::flip_H8(s.connect)),
      BIG_ROW(
          "circumcenters", [] { return big_box(box_kind::TH4, 16); },
          t3::circumcenters(s.coords, s.connect, s.reals_out)),
      BIG_ROW("convert_into_linear", big_quadratic, t3::convert_into_linear(s.connect)),
      BIG_ROW("extrude_translate", big_surface,
              t3::extrude_translate(s.coords, s.connect, lift, 3, s.E, s.E2, s.Q4, s.Top)),
      BIG_ROW("extrude_rotate", big_surface,
              t3::extrude_rotate(s.coords, s.connect, axis, turn, 0.05, 0.1, false, s.E, s.E2, s.Q4, s.Top)),
      BIG_ROW("extrude_normal", big_surface, t3::extrude_normal(s.coords, s.connect, 0.3, 2u, s.E, s.E2, s.Q4, s.Top)),
      BIG_ROW("get_elements_containing_points", big_search,
              t3::get_elements_containing_points(s.coords, s.connect, s.neighbors, s.node_element, s.detector, zel::TH4,
                                                 s.reals_in, s.ids_out, 0.0)),
      BIG_ROW(
          "dihedral_angles", [] { return big_angles(box_kind::TH4, 16); },
          t3::dihedral_angles(s.coords, s.connect, true, s.min_values, s.max_values)),
      BIG_ROW(
          "dihedral_angles_checked", [] { return big_angles(box_kind::H8, 22); },
          t3::dihedral_angles(s.coords, s.connect, false, s.min_values, s.max_values, s.ids_out)),
      BIG_ROW(
          "solid_angles", [] { return big_angles(box_kind::H8, 22); },
          t3::solid_angles(s.coords, s.connect, false, s.min_values, s.max_values)),
      BIG_ROW(
          "solid_angles_checked", [] { return big_angles(box_kind::TH4, 16); },
          t3::solid_angles(s.coords, s.connect, true, s.min_values, s.max_values, s.ids_out)),
      BIG_ROW("interpolate", big_field,
              t3::interpolate(s.coords, s.connect, s.neighbors, s.node_element, s.reals_out, s.ids)),
      BIG_ROW("interpolate_metrics", big_metrics,
              t3::interpolate_metrics(s.coords, s.connect, s.neighbors, s.node_element, s.reals_out, s.ids, true)),
      BIG_ROW("interpolate_metrics_sizes", big_metrics,
              t3::interpolate_metrics(s.coords, s.connect, s.neighbors, s.node_element, s.values, false)),
      BIG_ROW("interpolate_projected", big_field, t3::interpolate_projected(s.coords, s.connect, s.values, s.ids)),
      BIG_ROW("interpolate_metrics_projected", big_metrics,
              t3::interpolate_metrics_projected(s.coords, s.connect, s.reals_out, s.ids, false)),
      BIG_ROW("locate_points", big_points, t3::locate_points(s.coords, s.connect, s.reals_in, s.ids_out, 1e-9)),
      BIG_ROW("node_detector", big_cloud, query_detector(s)),
      BIG_ROW("duplicate_surface_nodes", big_cut,
              t3::duplicate_surface_nodes(s.coords, s.connect, s.neighbors, s.node_element, s.faces, s.ids, true, true,
                                          zel::TH4)),
      BIG_ROW(
          "get_node_element", [] { return big_box(box_kind::TH4, 24); },
          zel::tessel::get_node_element(s.connect, unsigned(s.coords.cols()), s.ids_out)),
  };
  return rows;
}
#undef BIG_ROW

class thread_counts : public ::testing::TestWithParam<family_row> {};

TEST_P(thread_counts, give_the_bits_of_one_thread) {
  const family_row& row = GetParam();
  t3::set_threads(1);
  scene one = row.make();
  const int status = row.call(one);
  EXPECT_GE(status, 0);
  for (unsigned n : {2u, 3u, 4u}) {
    t3::set_threads(n);
    scene many = row.make();
    EXPECT_EQ(row.call(many), status) << n << " threads";
    tessel3d_test::expect_same(many, one, std::to_string(n) + " threads");
  }
  t3::set_threads(0);
}

// Several callers' threads at once, each call cut into chunks on the library's threads.
TEST_P(thread_counts, callers_threads_share_the_library_threads) {
  const family_row& row = GetParam();
  t3::set_threads(1);
  scene alone = row.make();
  const int status = row.call(alone);
  t3::set_threads(3);
  std::vector<scene> results(2);
  std::vector<std::thread> callers;
  for (int t = 0; t < 2; ++t)
    callers.emplace_back([&, t] {
      results[t] = row.make();
      EXPECT_EQ(row.call(results[t]), status);
    });
  for (std::thread& caller : callers) caller.join();
  for (const scene& result : results) tessel3d_test::expect_same(result, alone, "caller");
  t3::set_threads(0);
}

// An allocation failing anywhere in a call on several threads: -199 (the families' own
// roll-back is checked by test_allocation_failures), or, where the call absorbs the failure,
// the result of a call without failure.
TEST_P(thread_counts, absorb_or_report_a_failed_allocation) {
  const family_row& row = GetParam();
  t3::set_threads(1);
  scene reference = row.make();
  const int status = row.call(reference);
  t3::set_threads(2);
  for (long n = 1;; n = n < 16 ? n + 1 : 2 * n) {  // the first allocations, then spread out
    scene s = row.make();
    tessel3d_test::failing_allocator guard(n);
    const int got = row.call(s);
    if (!guard.failed()) break;
    if (got == -199) continue;
    EXPECT_EQ(got, status) << "allocation " << n;
    tessel3d_test::expect_same(s, reference, "allocation " + std::to_string(n) + " failed");
  }
  t3::set_threads(0);
}

INSTANTIATE_TEST_SUITE_P(chunked, thread_counts, ::testing::ValuesIn(chunked_families()),
                         [](const ::testing::TestParamInfo<family_row>& row) { return std::string(row.param.name); });

// ---- order conversions ------------------------------------------------------------------------

// A one-layer slab of hexahedra (so that every triangulated face lies on its boundary),
// each cell kept whole, cut into two wedges, into six pyramids around its centre, or into
// four pyramids and four tetrahedra (the pyramids on the slab's faces each cut in two):
// every kind shares faces with the others, conformingly, as in an unstructured mesh,
// whose arbitrary numbering it gets by shuffling the nodes and the columns. 8-row layout.
scene mixed_slab(unsigned nx, unsigned ny) {
  const tessel3d_test::box_mesh box = make_box(box_kind::H8, nx, ny, 1, 1, 1, 0.3, 0.15);
  scene s;
  s.coords.copy(box.coords);
  std::vector<std::vector<unsigned>> cells;
  const auto add = [&](std::initializer_list<unsigned> nodes) { cells.emplace_back(nodes); };
  for (std::size_t j = 0; j < box.connect.cols(); ++j) {
    unsigned v[8];
    for (int i = 0; i < 8; ++i) v[i] = box.connect(i, j);
    switch (j % 4) {
      case 0: add({v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]}); break;
      case 1:  // the diagonal plane through edges 0-4 and 2-6
        add({v[0], v[1], v[2], v[4], v[5], v[6]});
        add({v[0], v[2], v[3], v[4], v[6], v[7]});
        break;
      default: {
        const unsigned centre = unsigned(s.coords.cols());
        vec3 c(0, 0, 0);
        for (unsigned k : v)
          for (int d = 0; d < 3; ++d) c[d] += s.coords(d, k) / 8;
        tessel3d_test::append_nodes(s.coords, {c});
        // The six faces, each seen from the centre (bases oriented towards it).
        const unsigned faces[6][4] = {{0, 3, 2, 1}, {4, 5, 6, 7}, {0, 1, 5, 4},
                                      {1, 2, 6, 5}, {2, 3, 7, 6}, {3, 0, 4, 7}};
        for (int f = 0; f < 6; ++f) {
          const unsigned* q = faces[f];
          if (j % 4 == 3 && f < 2) {  // bottom and top on the slab's faces: two tetrahedra
            add({v[q[0]], v[q[1]], v[q[2]], centre});
            add({v[q[0]], v[q[2]], v[q[3]], centre});
          } else {
            add({v[q[0]], v[q[1]], v[q[2]], v[q[3]], centre});
          }
        }
      }
    }
  }
  tessel3d_test::random_stream random(3);
  const std::size_t nb_nodes = s.coords.cols();
  std::vector<unsigned> to(nb_nodes);
  for (std::size_t i = 0; i < nb_nodes; ++i) to[i] = unsigned(i);
  for (std::size_t i = nb_nodes; i > 1; --i) std::swap(to[i - 1], to[std::size_t(random.uniform(0, double(i))) % i]);
  for (std::size_t i = cells.size(); i > 1; --i)
    std::swap(cells[i - 1], cells[std::size_t(random.uniform(0, double(i))) % i]);
  zel::dense2D<double> moved(3, nb_nodes);
  for (std::size_t i = 0; i < nb_nodes; ++i)
    for (int d = 0; d < 3; ++d) moved(d, to[i]) = s.coords(d, i);
  s.coords = moved;
  s.connect.resize(8, cells.size(), ~0U);
  for (std::size_t j = 0; j < cells.size(); ++j)
    for (std::size_t i = 0; i < cells[j].size(); ++i) s.connect(i, j) = to[cells[j][i]];
  return s;
}

// The numbering a reader expects from the description of the conversion, built with
// ordered maps: elements in column order, each edge (then each face that gets nodes)
// numbered when first met, its nodes listed from the end it was first met with; then the
// interior nodes element by element. Checked on the rows of every column, and the edge
// nodes' positions on the straight edges.
void expect_reference_numbering(const scene& in, const scene& out, unsigned e, unsigned q, unsigned t,
                                const unsigned interior[4], const std::string& what) {
  const auto& solids = zel::tessel::solid_records;
  const std::size_t nb_nodes = in.coords.cols();
  std::map<std::pair<unsigned, unsigned>, std::pair<unsigned, unsigned>> edges;  // -> first node, first end
  std::map<std::vector<unsigned>, unsigned> faces;
  std::size_t next = nb_nodes;
  std::vector<std::vector<unsigned>> expected(in.connect.cols());
  for (std::size_t j = 0; j < in.connect.cols(); ++j) {
    const unsigned* c = &in.connect(0, j);
    const auto& d = solids[zel::tessel::mixed8_kind(c)];
    for (unsigned v = 0; v < d.nb_vertices; ++v) expected[j].push_back(c[v]);
    for (unsigned i = 0; i < d.nb_edges; ++i) {
      const unsigned a = c[d.edges[i][0]], b = c[d.edges[i][1]];
      auto found = edges.emplace(std::make_pair(std::min(a, b), std::max(a, b)), std::make_pair(unsigned(next), a));
      if (found.second) next += e;
      const unsigned first = found.first->second.first;
      for (unsigned k = 0; k < e; ++k)
        expected[j].push_back(found.first->second.second == a ? first + k : first + e - 1 - k);
    }
  }
  for (std::size_t j = 0; j < in.connect.cols(); ++j) {
    const unsigned* c = &in.connect(0, j);
    const auto& d = solids[zel::tessel::mixed8_kind(c)];
    for (unsigned f = 0; f < d.nb_faces; ++f) {
      const unsigned count = d.face_size[f] == 3 ? t : q;
      std::vector<unsigned> key;
      for (unsigned k = 0; k < d.face_size[f]; ++k) key.push_back(c[d.faces[f][k]]);
      std::sort(key.begin(), key.end());
      auto found = faces.emplace(key, unsigned(next));
      if (found.second) next += count;
      for (unsigned k = 0; k < count; ++k) expected[j].push_back(found.first->second + k);  // one node per face here
    }
  }
  for (std::size_t j = 0; j < in.connect.cols(); ++j) {
    const unsigned kind = zel::tessel::mixed8_kind(&in.connect(0, j));
    for (unsigned k = 0; k < interior[kind]; ++k) expected[j].push_back(unsigned(next++));
  }
  ASSERT_EQ(out.coords.cols(), next) << what;
  for (std::size_t j = 0; j < in.connect.cols(); ++j) {
    for (std::size_t i = 0; i < out.connect.rows(); ++i)
      ASSERT_EQ(out.connect(i, j), i < expected[j].size() ? expected[j][i] : ~0U)
          << what << ": element " << j << " row " << i;
  }
  for (const auto& edge : edges) {
    const unsigned a = edge.second.second, b = a == edge.first.first ? edge.first.second : edge.first.first;
    for (unsigned k = 0; k < e; ++k)
      for (int d = 0; d < 3; ++d) {
        const double s = double(k + 1) / (e + 1);
        EXPECT_NEAR(out.coords(d, edge.second.first + k), (1 - s) * in.coords(d, a) + s * in.coords(d, b), 1e-12)
            << what;
      }
  }
}

// 480 cells: about 2,100 elements of every kind, more than one chunk of the occurrences.
TEST(order_numbering, equals_the_first_met_reference_on_a_mixed_mesh_on_any_thread_count) {
  const scene mesh = mixed_slab(24, 20);
  struct setting {
    unsigned e, q, t, interior[4];  // interior: TH4, PY5, W6, H8
  };
  for (const setting& c : {setting{1, 1, 0, {0, 0, 0, 1}}, setting{3, 1, 1, {1, 2, 1, 1}}})
    for (unsigned threads : {1u, 3u}) {
      t3::set_threads(threads);
      scene out;
      out.coords.copy(mesh.coords);
      ASSERT_EQ(t3::convert_into_high_order(out.coords, mesh.connect, c.e, c.q, c.t, c.interior[3], c.interior[2],
                                            c.interior[1], c.interior[0], out.connect, {}, {}),
                0);
      expect_reference_numbering(mesh, out, c.e, c.q, c.t, c.interior,
                                 "e = " + std::to_string(c.e) + ", " + std::to_string(threads) + " threads");
    }
  t3::set_threads(0);
}

// Big enough for several chunks of every loop of the conversions and the adjacency.
scene big_with_caller_nodes() {
  scene s = big_box(box_kind::H8, 24);
  const unsigned a = s.connect(0, 0), b = s.connect(1, 0), c = s.connect(2, 0), d = s.connect(3, 0);
  const unsigned first = tessel3d_test::append_nodes(s.coords, {vec3(0.02, -0.01, -0.01), vec3(0.02, 0.02, -0.02)});
  s.edges = zel::dense2D<unsigned>(3, 2, {a, b, first, b, a, first});
  s.faces = zel::dense2D<unsigned>(9, 1, {a, b, c, d, a, a, a, a, first + 1});
  return s;
}

#define ORDER_ROW(name, make, ...)                            \
  family_row {                                                \
    name, make, nullptr, [](scene& s) { return __VA_ARGS__; } \
  }
const std::vector<family_row>& order_families() {
  static const std::vector<family_row> rows = {
      ORDER_ROW(
          "convert_into_quadratic_TH4", [] { return big_box(box_kind::TH4, 16); },
          t3::convert_into_quadratic(s.coords, s.connect)),
      ORDER_ROW(
          "convert_into_high_order_mixed", [] { return mixed_slab(30, 30); },
          t3::convert_into_high_order(s.coords, s.connect, 2, 4, 3, 8, 1, 2, 1, s.faces, s.edges,
                                      t3::high_order_options())),
      ORDER_ROW("convert_into_quadratic_caller_nodes", big_with_caller_nodes,
                t3::convert_into_quadratic(s.coords, s.connect, s.faces, s.edges)),
      ORDER_ROW(
          "split_into_H8", [] { return big_box(box_kind::TH4, 16); },
          t3::split_into_H8(s.coords, s.connect, s.out, {}, {})),
      ORDER_ROW(
          "get_neighbors", [] { return big_box(box_kind::H8, 30); },
          zel::tessel::get_neighbors(s.connect, zel::H8, s.neighbors)),
  };
  return rows;
}
#undef ORDER_ROW
INSTANTIATE_TEST_SUITE_P(order, thread_counts, ::testing::ValuesIn(order_families()),
                         [](const ::testing::TestParamInfo<family_row>& row) { return std::string(row.param.name); });

TEST(thread_setting, defaults_to_the_cores_of_the_affinity_mask) {
  cpu_set_t mask;
  ASSERT_EQ(sched_getaffinity(0, sizeof mask, &mask), 0);
  t3::set_threads(0);
  EXPECT_EQ(t3::threads(), unsigned(CPU_COUNT(&mask)));
  t3::set_threads(5);
  EXPECT_EQ(t3::threads(), 5u);
  t3::set_threads(1);
  EXPECT_EQ(t3::threads(), 1u);
  t3::set_threads(0);
  EXPECT_EQ(t3::threads(), unsigned(CPU_COUNT(&mask)));
}

// One detector, queried from every thread: the queries are const and share its buffers.
TEST(node_detector, concurrent_queries_match_queries_alone) {
  const tessel3d_test::box_mesh box = tessel3d_test::make_box(tessel3d_test::box_kind::H8, 6, 5, 4, 1, 1, 1, 0.2);
  const zel::tessel::node_detector detector(box.coords);
  std::vector<vec3> points;
  tessel3d_test::random_stream random(5);
  for (int i = 0; i < 500; ++i)
    points.emplace_back(random.uniform(-0.2, 1.2), random.uniform(-0.2, 1.2), random.uniform(-0.2, 1.2));
  std::vector<unsigned> close_alone, closest_alone;
  for (const vec3& p : points) {
    close_alone.push_back(detector.find_close(p));
    closest_alone.push_back(detector.find_closest(p));
  }
  std::vector<std::vector<unsigned>> close(nb_threads), closest(nb_threads);
  start_line start;
  std::vector<std::thread> threads;
  for (int t = 0; t < nb_threads; ++t)
    threads.emplace_back([&, t] {
      const zel::tessel::node_detector mine = detector;  // a shallow copy, as callers pass it around
      start.arrive_and_wait();
      for (const vec3& p : points) {
        close[t].push_back(mine.find_close(p));
        closest[t].push_back(mine.find_closest(p));
      }
    });
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < nb_threads; ++t) {
    EXPECT_EQ(close[t], close_alone) << "thread " << t;
    EXPECT_EQ(closest[t], closest_alone) << "thread " << t;
  }
}

}  // namespace
