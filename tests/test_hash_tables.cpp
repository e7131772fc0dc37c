// The internal hash container: keys, orientation-aware equality, growth, iteration.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <vector>

#include "box_mesh.h"
#include "failing_allocator.h"
#include "order/hash_tables.h"

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
  // The hash is the documented sum, so it does not depend on node order.
  EXPECT_EQ(hash_key(5u), static_cast<std::uint64_t>(5u ^ 0x811C9DC5u) * 0x01000193ull);
}

TEST(hash_table, reset_sizes_and_prime_table) {
  hash_table<unsigned> set;
  EXPECT_TRUE(set.reset(23, 5, 1.0));
  EXPECT_EQ(set.bucket_count(), 23u);
  EXPECT_EQ(set.used_slots(), 23u);
  EXPECT_EQ(next_prime(0), 13u);
  EXPECT_EQ(next_prime(24), 53u);
  EXPECT_EQ(next_prime(97), 97u);
  EXPECT_EQ(next_prime(4294967292ul), 4294967291ul);
  EXPECT_TRUE(set.rehash(1000));
  EXPECT_EQ(set.bucket_count(), 1543u);
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
      const std::size_t q = ahead.insert_growing(hash_key(keys[i]), homes[i - k], buckets, {keys[i], value}, &added_ahead);
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

TEST(hash_table, iteration_follows_the_slot_array) {
  // Home buckets first, in bucket order; a key whose bucket is taken goes to an overflow
  // slot appended after them, and is still found through its chain.
  hash_table<unsigned> set;
  ASSERT_TRUE(set.reset(23, 23, 1.0));
  auto bucket = [](unsigned key) { return hash_key(key) % 23; };
  unsigned first = 0;
  while (bucket(first) == 0) ++first;
  unsigned clash = first + 1, low = 0;
  while (bucket(clash) != bucket(first)) ++clash;
  while (bucket(low) >= bucket(first)) ++low;
  for (unsigned key : {first, clash, low}) ASSERT_NE(set.insert(hash_key(key), key), set.npos);
  std::vector<unsigned> order;
  for (std::size_t pos = set.begin(); pos < set.end(); ++pos)
    if (set.occupied(pos)) order.push_back(set.value(pos));
  EXPECT_EQ(order, (std::vector<unsigned>{low, first, clash}));
  EXPECT_EQ(set.used_slots(), 24u);
  EXPECT_EQ(set.find(hash_key(clash), clash), set.begin() + 23);
}
