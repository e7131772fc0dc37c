// The internal hash container: keys, orientation-aware equality, growth, iteration.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <vector>

#include "box_mesh.h"
#include "crafted_numbering.h"
#include "failing_allocator.h"
#include "order/hash_tables.h"
#include "zel/tessel3d.h"

using namespace elfes;

TEST(hash_keys, order_independent_hash_and_oriented_equality) {
  EXPECT_EQ(hash_key(edge2{{3, 9}}), hash_key(edge2{{9, 3}}));
  EXPECT_EQ(compare_keys(edge2{{3, 9}}, edge2{{3, 9}}), 1);
  EXPECT_EQ(compare_keys(edge2{{3, 9}}, edge2{{9, 3}}), -1);
  EXPECT_EQ(compare_keys(edge2{{3, 9}}, edge2{{3, 8}}), 0);

  const face_mix t123{{1, 2, 3, ~0U}}, t231{{2, 3, 1, ~0U}}, t321{{3, 2, 1, ~0U}};
  EXPECT_EQ(hash_key(t123), hash_key(t321));
  EXPECT_EQ(compare_keys(t123, t231), 1);
  EXPECT_EQ(compare_keys(t123, t321), -1);
  EXPECT_EQ(compare_keys(t123, face_mix{{1, 2, 3, 4}}), 0);  // a triangle never equals a quadrangle
  EXPECT_EQ(compare_keys(faceT3{{5, 1, 7}}, faceT3{{1, 7, 5}}), 1);
  EXPECT_EQ(compare_keys(faceT3{{5, 1, 7}}, faceT3{{1, 5, 7}}), -1);

  const faceQ4 q{{4, 8, 6, 2}};
  EXPECT_EQ(compare_keys(q, faceQ4{{6, 2, 4, 8}}), 1);
  EXPECT_EQ(compare_keys(q, faceQ4{{2, 6, 8, 4}}), -1);
  EXPECT_EQ(compare_keys(q, faceQ4{{2, 8, 6, 4}}), 0);  // same nodes, another cycle
}

TEST(hash_table, matches_std_map_through_growth) {
  // Edges of a mesh: every edge once, whichever element reaches it first keeps its value.
  const auto mesh = tessel3d_test::make_box(tessel3d_test::box_kind::TH4, 6, 5, 4);
  hash_table<map_entry<edge2, unsigned>> edges;
  ASSERT_TRUE(edges.reset(23, 23, 1.0));
  std::map<std::pair<unsigned, unsigned>, unsigned> reference;
  std::vector<std::pair<unsigned, unsigned>> insertion_order;
  unsigned next = 0;
  for (std::size_t j = 0; j < mesh.connect.cols(); ++j)
    for (unsigned a = 0; a < 4; ++a)
      for (unsigned b = a + 1; b < 4; ++b) {
        const unsigned u = mesh.connect(a, j), v = mesh.connect(b, j);
        bool added = false;
        const std::size_t pos = edges.insert_growing(hash_key(edge2{{u, v}}), {{{u, v}}, next}, &added);
        ASSERT_NE(pos, edges.npos);
        const auto key = std::make_pair(std::min(u, v), std::max(u, v));
        const bool fresh = reference.emplace(key, next).second;
        EXPECT_EQ(added, fresh);
        EXPECT_EQ(edges.value(pos).second, reference[key]);  // an existing entry is left untouched
        if (fresh) insertion_order.push_back(key), ++next;
      }
  EXPECT_EQ(edges.size(), reference.size());
  EXPECT_GT(edges.bucket_count(), 23u);  // it grew
  for (const auto& [key, value] : reference) {
    const std::size_t pos = edges.find(hash_key(edge2{{key.second, key.first}}), edge2{{key.second, key.first}});
    ASSERT_NE(pos, edges.end());
    EXPECT_EQ(edges.value(pos).second, value);
  }
  EXPECT_EQ(edges.find(hash_key(edge2{{0, 999999}}), edge2{{0, 999999}}), edges.end());

  // Iteration visits each entry once; after a rehash the order is the re-insertion order.
  std::size_t live = 0;
  for (std::size_t pos = edges.begin(); pos < edges.end(); ++pos) live += edges.occupied(pos);
  EXPECT_EQ(live, reference.size());
}

TEST(hash_table, homes_taken_ahead_give_the_table_of_plain_insertions) {
  // Homes taken before the insertions, as a bulk insertion takes them: those taken at an
  // older bucket count must be recomputed, so the table ends slot for slot as one filled
  // by plain insertions, across the rehashes of its growth.
  const auto mesh = tessel3d_test::make_box(tessel3d_test::box_kind::H8, 5, 4, 3);
  using edge_map = hash_table<map_entry<edge2, unsigned>>;
  edge_map plain, ahead;
  ASSERT_TRUE(plain.reset(23, 23, 1.0));
  ASSERT_TRUE(ahead.reset(23, 23, 1.0));
  std::vector<edge2> keys;
  for (std::size_t j = 0; j < mesh.connect.cols(); ++j)
    for (unsigned a = 0; a < 8; ++a) keys.push_back(edge2{{mesh.connect(a, j), mesh.connect((a + 1) % 8, j)}});
  std::size_t stale = 0;
  for (std::size_t k = 0; k < keys.size(); k += 16) {  // homes for a block of 16, then its insertions
    std::vector<std::size_t> homes;
    const std::size_t buckets = ahead.bucket_count();
    for (std::size_t i = k; i < keys.size() && i < k + 16; ++i) homes.push_back(ahead.home(hash_key(keys[i])));
    for (std::size_t i = k; i < keys.size() && i < k + 16; ++i) {
      const unsigned value = static_cast<unsigned>(i);
      bool added_plain = false, added_ahead = false;
      const std::size_t p = plain.insert_growing(hash_key(keys[i]), {keys[i], value}, &added_plain);
      stale += ahead.bucket_count() != buckets;
      const std::size_t q =
          ahead.insert_growing(hash_key(keys[i]), homes[i - k], buckets, {keys[i], value}, &added_ahead);
      ASSERT_EQ(p, q);
      EXPECT_EQ(added_plain, added_ahead);
    }
  }
  EXPECT_GT(stale, 0u);  // some homes went stale through a rehash
  ASSERT_EQ(plain.end(), ahead.end());
  for (std::size_t pos = plain.begin(); pos < plain.end(); ++pos) {
    ASSERT_EQ(plain.occupied(pos), ahead.occupied(pos));
    if (!plain.occupied(pos)) continue;
    EXPECT_EQ(compare_keys(plain.value(pos).first, ahead.value(pos).first), 1);
    EXPECT_EQ(plain.value(pos).second, ahead.value(pos).second);
  }
}

TEST(hash_table, face_maps_follow_their_match_policy) {
  hash_table<map_entry<face_mix, unsigned>> any;
  hash_table<map_entry<faceQ4, std::size_t>, same_orientation> oriented;
  ASSERT_TRUE(any.reset(23, 23, 1.0));
  ASSERT_TRUE(oriented.reset(23, 23, 1.0));
  const face_mix f{{1, 2, 3, 4}}, reversed{{4, 3, 2, 1}};
  any.insert(hash_key(f), {f, 7});
  EXPECT_NE(any.find(hash_key(reversed), reversed), any.end());
  const faceQ4 q{{1, 2, 3, 4}}, rq{{4, 3, 2, 1}};
  bool added = false;
  oriented.insert(hash_key(q), {q, 1}, &added);
  EXPECT_TRUE(added);
  EXPECT_EQ(oriented.find(hash_key(rq), rq), oriented.end());
  oriented.insert(hash_key(rq), {rq, 2}, &added);
  EXPECT_TRUE(added);
  EXPECT_EQ(oriented.size(), 2u);
}

TEST(hash_table, failed_growth_reports_and_keeps_entries) {
  EXPECT_EQ(next_prime(4294967292ul), 4294967291ul);  // the largest bucket count a 32-bit table may take
  hash_table<unsigned> set;
  {
    tessel3d_test::failing_allocator guard(1, true);
    EXPECT_FALSE(set.reset(23, 23, 1.0));  // not even 23 slots: no bucket, inserts fail
    EXPECT_EQ(set.insert(hash_key(1u), 1u), set.npos);
  }
  {
    tessel3d_test::failing_allocator guard(1);
    EXPECT_FALSE(set.reset(100, 97, 1.0));  // the reservation failed: 23 buckets, still usable
    EXPECT_EQ(set.bucket_count(), 23u);
    EXPECT_NE(set.insert(hash_key(1u), 1u), set.npos);
  }
  ASSERT_TRUE(set.reset(23, 23, 1.0));
  for (unsigned i = 0; i < 40; ++i) ASSERT_NE(set.insert_growing(hash_key(i), i), set.npos);
  const std::size_t buckets = set.bucket_count();
  {
    tessel3d_test::failing_allocator guard(1);
    EXPECT_FALSE(set.rehash(5000));
  }
  EXPECT_EQ(set.bucket_count(), buckets);
  for (unsigned i = 0; i < 40; ++i) EXPECT_NE(set.find(hash_key(i), i), set.end());
}

// ---- hostile numberings -----------------------------------------------------------------

namespace {

// Inserts every face of every column of an H8 mesh into a face map; the probes per call.
double probes_per_face(const zel::dense2D<unsigned>& connect) {
  static const unsigned faces[6][4] = {{0, 3, 7, 4}, {1, 5, 6, 2}, {0, 4, 5, 1},
                                       {3, 2, 6, 7}, {0, 1, 2, 3}, {4, 7, 6, 5}};
  hash_table<map_entry<face_mix, unsigned>> map;
  EXPECT_TRUE(map.reset(23, 23, 1.0));
  std::size_t calls = 0;
  for (std::size_t j = 0; j < connect.cols(); ++j)
    for (const auto& f : faces) {
      const face_mix key{{connect(f[0], j), connect(f[1], j), connect(f[2], j), connect(f[3], j)}};
      EXPECT_NE(map.insert_growing(hash_key(key), {key, 0}), map.npos);
      EXPECT_NE(map.find(hash_key(key), key), map.end());
      calls += 2;
    }
  return static_cast<double>(map.probes()) / static_cast<double>(calls);
}

}  // namespace

TEST(hash_table, parity_numbering_costs_no_more_probes_than_the_natural_one) {
  const unsigned n = 16;
  const auto natural = tessel3d_test::make_box(tessel3d_test::box_kind::H8, n, n, n);
  const auto crafted = tessel3d_test::parity_numbering(natural, n, n, n);
  // The numbering is hostile: every quadrangle has one additive hash.
  std::set<std::uint64_t> hashes;
  for (std::size_t j = 0; j < crafted.mesh.connect.cols(); ++j) {
    const auto& c = crafted.mesh.connect;
    hashes.insert(hash_key(faceQ4{{c(0, j), c(1, j), c(2, j), c(3, j)}}));
    hashes.insert(hash_key(faceQ4{{c(0, j), c(4, j), c(5, j), c(1, j)}}));
  }
  EXPECT_EQ(hashes.size(), 1u);
  const double plain = probes_per_face(natural.connect), hostile = probes_per_face(crafted.mesh.connect);
  EXPECT_LT(plain, 6.0);
  EXPECT_LT(hostile, 3.0 * plain);
}

TEST(hash_table, parity_numbering_gives_the_natural_results_renumbered) {
  using tessel3d_test::box_kind;
  using zel::dense2D;
  using convert = int (*)(dense2D<double>&, dense2D<unsigned>&, dense2D<unsigned>&);
  const convert quadratic = [](dense2D<double>& x, dense2D<unsigned>& c, dense2D<unsigned>&) {
    return zel::tessel3d::convert_into_quadratic(x, c);
  };
  const convert high_order = [](dense2D<double>& x, dense2D<unsigned>& c, dense2D<unsigned>& out) {
    return zel::tessel3d::convert_into_high_order(x, c, 3, 4, 3, 8, 1, 2, 1, out, zel::dense2D<unsigned>(),
                                                  zel::dense2D<unsigned>());
  };
  const convert hexahedra = [](dense2D<double>& x, dense2D<unsigned>& c, dense2D<unsigned>& out) {
    return zel::tessel3d::split_into_H8(x, c, out, {}, {});
  };
  const struct {
    box_kind kind;
    convert call;
  } cases[] = {{box_kind::H8, quadratic},  {box_kind::TH4, quadratic}, {box_kind::W6, quadratic},
               {box_kind::PY5, quadratic}, {box_kind::H8, high_order}, {box_kind::PY5, high_order},
               {box_kind::TH4, hexahedra}, {box_kind::W6, hexahedra}};
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.kind));
    const auto natural = tessel3d_test::make_box(c.kind, 5, 4, 3, 1.0, 1.0, 1.0, 0.2);
    auto crafted = tessel3d_test::parity_numbering(natural, 5, 4, 3);
    dense2D<double> xn, xc;
    dense2D<unsigned> cn, cc, outn, outc;
    ASSERT_TRUE(xn.copy(natural.coords) && cn.copy(natural.connect) && xc.copy(crafted.mesh.coords) &&
                cc.copy(crafted.mesh.connect));
    if (cn.rows() == 5) cn = tessel3d_test::to_mixed8(cn), cc = tessel3d_test::to_mixed8(cc);
    ASSERT_EQ(c.call(xn, cn, outn), 0);
    ASSERT_EQ(c.call(xc, cc, outc), 0);
    const dense2D<unsigned>& rn = outn.empty() ? cn : outn;
    const dense2D<unsigned>& rc = outc.empty() ? cc : outc;
    const std::size_t nb_n = natural.coords.cols(), nb_c = crafted.mesh.coords.cols();
    ASSERT_EQ(xc.cols() - nb_c, xn.cols() - nb_n);
    ASSERT_EQ(rc.rows(), rn.rows());
    ASSERT_EQ(rc.cols(), rn.cols());
    std::size_t wrong = 0;
    for (std::size_t j = 0; j < rn.cols(); ++j)
      for (std::size_t r = 0; r < rn.rows(); ++r) {
        const unsigned id = rn(r, j);
        const unsigned expected = id == ~0U ? id : id < nb_n ? crafted.new_id[id] : unsigned(id - nb_n + nb_c);
        wrong += rc(r, j) != expected;
      }
    EXPECT_EQ(wrong, 0u);
    for (std::size_t t = 0; t < xn.cols() - nb_n; ++t)
      for (int d = 0; d < 3; ++d) wrong += xc(d, nb_c + t) != xn(d, nb_n + t);  // bit for bit
    EXPECT_EQ(wrong, 0u);
  }
}
