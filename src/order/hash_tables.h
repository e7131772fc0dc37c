// The one hash container of the library: maps and sets keyed by edges, faces or single
// IDs, giving every edge or face of a mesh one record whichever element reaches it.
//
// Keys (plain records of node IDs):
//   edge2     two end nodes, either order
//   faceT3    three corners in cyclic order
//   faceQ4    four corners in cyclic order
//   face_mix  a triangle (node 3 == ~0U) or a quadrangle
//   unsigned  one node or element ID
// The hash of a key is the sum over its nodes of (node ^ 0x811C9DC5) * 0x01000193 in
// 64-bit arithmetic; the sum does not depend on node order, so a face reached from
// either side hashes alike. compare_keys() tells 1 (same key, same orientation), -1
// (same key, opposite orientation) or 0 (different keys); the table's Match policy
// decides which results count as equal (any_orientation: a face and its reverse are one
// key; same_orientation: they are two).
//
// Layout: one growable array of slots. Slots [0, B) are the home buckets, slots [B, used)
// overflow slots appended by insertions: a new entry takes its home bucket (hash mod B)
// when that is free, else the next overflow slot. A rehash re-inserts the entries in slot
// order by the same rule. Iteration walks the slots in array order, so bulk traversals
// are deterministic and depend only on the keys and the order of their insertion. Each
// slot holds a value and a link word: bit 0 = occupied, link >> 1 = forward distance to
// the next slot of the same chain (0: end of chain). Never-used slots hold key words ~0U,
// mapped value 0 and link 0.
//
// The hash above is additive in the node IDs, so a chosen numbering can give most keys of
// a mesh one bucket. A chain is therefore linked for its first chain_limit overflow slots
// only; the later slots of a bucket go to an index beside the slots, open addressing keyed
// by a seeded mix of the sorted nodes (key_mixing.h), at most half full. A find or an
// insert walks at most chain_limit links, then probes the index: O(1) expected whatever
// the numbering, while an ordinary numbering, whose hashes follow the mesh, keeps the
// locality of its home buckets and rarely reaches the index. The index is built on demand
// and costs 16 to 32 bytes per slot it holds.
//
// Use: reset() once (23 expected entries, hint 23, load 1.0), rehash() to the expected
// count before a bulk insertion, then insert_growing() (which doubles the buckets once
// the entries would exceed twice their number) or insert(). Iterate in array order with
// begin() / end() / occupied(). Nothing throws: failures are reported by return values.
#pragma once

#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "common/debug_check.h"
#include "common/element_tables.h"
#include "order/key_mixing.h"
#include "zel/matrix.h"

namespace elfes {

struct edge2 {
  unsigned node[2];
};
struct faceT3 {
  unsigned node[3];
};
struct faceQ4 {
  unsigned node[4];
};
struct face_mix {
  unsigned node[4];  // node[3] == ~0U for a triangle
};

/// A map's stored value: the key and its mapped value.
template <class Key, class Mapped>
struct map_entry {
  Key first;
  Mapped second;
};

/// A slot: the stored value followed by its link word.
template <class T, class Link>
struct __hbuckets_node_type {
  T value;
  Link link;
};

// ---- hashing ---------------------------------------------------------------------------

inline std::uint64_t hash_node(unsigned node) { return static_cast<std::uint64_t>(node ^ 0x811C9DC5u) * 0x01000193ull; }
inline std::uint64_t hash_key(unsigned id) { return hash_node(id); }
inline std::uint64_t hash_key(const edge2& k) { return hash_node(k.node[0]) + hash_node(k.node[1]); }
inline std::uint64_t hash_key(const faceT3& k) {
  return hash_node(k.node[0]) + hash_node(k.node[1]) + hash_node(k.node[2]);
}
inline std::uint64_t hash_key(const faceQ4& k) {
  return hash_node(k.node[0]) + hash_node(k.node[1]) + hash_node(k.node[2]) + hash_node(k.node[3]);
}
inline std::uint64_t hash_key(const face_mix& k) {
  const std::uint64_t h = hash_node(k.node[0]) + hash_node(k.node[1]) + hash_node(k.node[2]);
  return k.node[3] < ABSENT ? h + hash_node(k.node[3]) : h;
}

// ---- comparison: 1 same orientation, -1 opposite, 0 different -------------------------

inline int compare_keys(unsigned a, unsigned b) { return a == b ? 1 : 0; }

inline int compare_keys(const edge2& a, const edge2& b) {
  if (a.node[0] == b.node[0] && a.node[1] == b.node[1]) return 1;
  if (a.node[0] == b.node[1] && a.node[1] == b.node[0]) return -1;
  return 0;
}

namespace detail {

// Position of the first occurrence of the smallest of n nodes.
inline unsigned min_position(const unsigned* node, unsigned n) {
  unsigned best = 0;
  for (unsigned i = 1; i < n; ++i)
    if (node[i] < node[best]) best = i;
  return best;
}

// Compares two cycles of n (3 or 4) nodes, each rotated to start at its smallest node.
inline int compare_cycles(const unsigned* a, const unsigned* b, unsigned n) {
  const unsigned ra = min_position(a, n), rb = min_position(b, n);
  if (a[ra] != b[rb]) return 0;
  unsigned p[4], q[4];
  for (unsigned i = 0; i < n; ++i) {
    p[i] = a[(ra + i) % n];
    q[i] = b[(rb + i) % n];
  }
  if (n == 3) {
    if (p[1] == q[1] && p[2] == q[2]) return 1;
    if (p[1] == q[2] && p[2] == q[1]) return -1;
    return 0;
  }
  if (p[2] != q[2]) return 0;
  if (p[1] == q[1] && p[3] == q[3]) return 1;
  if (p[1] == q[3] && p[3] == q[1]) return -1;
  return 0;
}

}  // namespace detail

inline int compare_keys(const faceT3& a, const faceT3& b) { return detail::compare_cycles(a.node, b.node, 3); }
inline int compare_keys(const faceQ4& a, const faceQ4& b) { return detail::compare_cycles(a.node, b.node, 4); }
inline int compare_keys(const face_mix& a, const face_mix& b) {
  const bool a_triangle = a.node[3] == ABSENT, b_triangle = b.node[3] == ABSENT;
  if (a_triangle != b_triangle) return 0;
  return detail::compare_cycles(a.node, b.node, a_triangle ? 3 : 4);
}

// ---- match policies ---------------------------------------------------------------------

struct any_orientation {
  static bool accepts(int comparison) { return comparison != 0; }
};
struct same_orientation {
  static bool accepts(int comparison) { return comparison == 1; }
};

// ---- keys of stored values and never-used slots -----------------------------------------

template <class T>
struct stored_key {
  using type = T;
  static const T& of(const T& value) { return value; }
  static void mark_unused(T& value) { value = blank_key(); }
  static T blank_key() {
    T key;
    blank(key);
    return key;
  }
  static void blank(unsigned& id) { id = ABSENT; }
  template <class K>
  static void blank(K& key) {
    for (unsigned& n : key.node) n = ABSENT;
  }
};

template <class Key, class Mapped>
struct stored_key<map_entry<Key, Mapped>> {
  using type = Key;
  static const Key& of(const map_entry<Key, Mapped>& value) { return value.first; }
  static void mark_unused(map_entry<Key, Mapped>& value) {
    value.first = stored_key<Key>::blank_key();
    value.second = Mapped();
  }
};

/// Bucket counts used by rehash(): 30 ascending primes.
inline std::size_t next_prime(std::size_t wanted) {
  static const std::size_t primes[30] = {
      13ul,        23ul,        53ul,        97ul,         193ul,        389ul,       769ul,      1543ul,
      3079ul,      6151ul,      12289ul,     24593ul,      49157ul,      98317ul,     196613ul,   393241ul,
      786433ul,    1572869ul,   3145739ul,   6291469ul,    12582917ul,   25165843ul,  50331653ul, 100663319ul,
      201326611ul, 402653189ul, 805306457ul, 1610612741ul, 3221225473ul, 4294967291ul};
  for (std::size_t p : primes)
    if (p >= wanted) return p;
  return primes[29];
}

// ---- seeded lookup hash: equal under either match policy => equal hash ----------------

inline std::uint64_t lookup_hash(std::uint64_t seed, unsigned id) { return mixing::of_nodes(seed, id); }
inline std::uint64_t lookup_hash(std::uint64_t seed, const edge2& k) {
  return mixing::of_nodes(seed, k.node[0], k.node[1]);
}
inline std::uint64_t lookup_hash(std::uint64_t seed, const faceT3& k) {
  return mixing::of_nodes(seed, k.node[0], k.node[1], k.node[2]);
}
inline std::uint64_t lookup_hash(std::uint64_t seed, const faceQ4& k) {
  return mixing::of_nodes(seed, k.node[0], k.node[1], k.node[2], k.node[3]);
}
inline std::uint64_t lookup_hash(std::uint64_t seed, const face_mix& k) {
  return mixing::of_nodes(seed, k.node[0], k.node[1], k.node[2], k.node[3]);
}

// ---- the table ----------------------------------------------------------------------------

template <class Value, class Match = any_orientation>
class hash_table {
 public:
  using value_type = Value;
  using key_type = typename stored_key<Value>::type;
  using slot_type = __hbuckets_node_type<Value, unsigned>;
  static constexpr std::size_t npos = ~std::size_t(0);

  /// Empties the table and sizes it for n entries with max(hint, 23) buckets. False when
  /// the slots could not be reserved: the table then has 23 buckets (or, when even those
  /// cannot be had, none, and every insert fails).
  bool reset(std::size_t n, std::size_t hint, double max_load) {
    used_ = 0;
    entries_ = 0;
    max_load_ = max_load;
    const std::size_t tentative = hint > 23 ? hint : 23;
    // Fraction of home buckets expected to be occupied after n insertions.
    const double occupied = 1.0 - std::exp(static_cast<double>(n) * std::log1p(-1.0 / static_cast<double>(tentative)));
    const double extra_share = 1.3 * (1.0 - occupied / max_load);
    const double extra = (extra_share < 1.0 ? extra_share : 1.0) * static_cast<double>(tentative);
    const double wanted = static_cast<double>(n) + extra;
    bool reserved = wanted < 4294967295.0 && reserve_slots(static_cast<std::size_t>(wanted));
    buckets_ = reserved ? tentative : 23;
    index_.reset();
    index_mask_ = 0;
    indexed_ = 0;
    seed_ = mixing::fresh_seed(this);
    probes_ = 0;
    if (!reserve_slots(first_ + buckets_)) {
      buckets_ = 0;
      return false;
    }
    slot_type* slots = storage_->data();
    for (std::size_t i = 0; i < buckets_; ++i) clear_slot(slots[first_ + i]);
    used_ = buckets_;
    return reserved;
  }

  /// Position of the entry equal to key, or end().
  std::size_t find(std::uint64_t h, const key_type& key) const {
    if (buckets_ == 0) return end();
    const place_found at = lookup(home(h), key);
    return at.pos == npos ? end() : at.pos;
  }

  /// The home bucket of hash h, where insert() places a new key when it is free, while
  /// the bucket count stays as it is (npos when there are no buckets).
  std::size_t home(std::uint64_t h) const { return buckets_ == 0 ? npos : first_ + h % buckets_; }

  /// Starts loading the slot at `pos` (a home()) into the cache. A bulk insertion asks
  /// for the home buckets of the next keys before it inserts them, so that their cache
  /// misses overlap instead of following one another.
  void prefetch(std::size_t pos) const {
#if defined(__GNUC__)
    if (pos != npos) __builtin_prefetch(storage_->data() + pos);
#else
    (void)pos;
#endif
  }

  /// Starts loading the index entry where the lookup of a key past a full chain begins.
  void prefetch_key(const key_type& key) const {
#if defined(__GNUC__)
    if (index_) __builtin_prefetch(index_->data() + (lookup_hash(seed_, key) & index_mask_));
#else
    (void)key;
#endif
  }

  /// Find-or-insert: the position of the existing equal entry (left untouched) or of the
  /// newly stored value; npos when the slots or the index could not grow. *added tells
  /// which.
  std::size_t insert(std::uint64_t h, const Value& value, bool* added = nullptr) {
    return insert_from(home(h), value, added);
  }

  /// insert() from a home() taken at the current bucket count.
  std::size_t insert_from(std::size_t home_pos, const Value& value, bool* added = nullptr) {
    if (added) *added = false;
    if (buckets_ == 0) return npos;
    const place_found at = lookup(home_pos, stored_key<Value>::of(value));
    if (at.pos != npos) return at.pos;
    const std::size_t pos = add(at, value);
    if (added) *added = pos != npos;
    return pos;
  }

  /// Rebuilds the table with at least `wanted` buckets (the next prime of the table),
  /// re-inserting the entries in slot order. False when the new table could not be sized
  /// (the old one is kept) or when an entry could not be carried over.
  bool rehash(std::size_t wanted) {
    const std::size_t buckets = next_prime(wanted);
    hash_table rebuilt;
    rebuilt.reset(entries_, buckets, 1.0);
    if (rebuilt.buckets_ < buckets) return false;
    for (std::size_t pos = begin(); pos < end(); ++pos)
      if (occupied(pos)) {
        const Value& value = storage_->data()[pos].value;
        const key_type& key = stored_key<Value>::of(value);
        if (rebuilt.add(rebuilt.chain_end(rebuilt.home(hash_key(key))), value) == npos) break;
      }
    const bool complete = rebuilt.entries_ == entries_;
    const std::size_t probes = probes_ + rebuilt.probes_;
    *this = rebuilt;
    probes_ = probes;
    max_load_ = 1.0;
    return complete;
  }

  /// insert() after the growth rule: when the entries would exceed twice the buckets,
  /// rehash to twice the entries first. npos when memory runs out.
  std::size_t insert_growing(std::uint64_t h, const Value& value, bool* added = nullptr) {
    return insert_growing(h, npos, 0, value, added);
  }

  /// insert_growing() given home_pos, the home() of h when the table had `buckets`
  /// buckets: used as it is while the bucket count has not changed.
  std::size_t insert_growing(std::uint64_t h, std::size_t home_pos, std::size_t buckets, const Value& value,
                             bool* added = nullptr) {
    if (entries_ + 1 > 2 * buckets_ && !rehash(2 * entries_ > 23 ? 2 * entries_ : 23)) {
      if (added) *added = false;
      return npos;
    }
    return insert_from(buckets == buckets_ && home_pos != npos ? home_pos : home(h), value, added);
  }

  // Iteration over positions [begin(), end()) in array order; occupied() tells live ones.
  std::size_t begin() const { return first_; }
  std::size_t end() const { return first_ + used_; }
  bool occupied(std::size_t pos) const { return (storage_->data()[pos].link & 1u) != 0; }
  Value& value(std::size_t pos) { return storage_->data()[pos].value; }
  const Value& value(std::size_t pos) const { return storage_->data()[pos].value; }

  std::size_t size() const { return entries_; }
  std::size_t bucket_count() const { return buckets_; }
  std::size_t used_slots() const { return used_; }
  double max_load() const { return max_load_; }
  /// Slots and index entries examined by the lookups since the last reset: a measure of
  /// work that does not depend on the machine (for tests and benchmarks). Exact on one
  /// thread; lookups from several threads (the extrusions' chunks) may lose counts.
  std::size_t probes() const { return probes_; }

 private:
  using buffer_type = zel::vector_num<slot_type, 8>;
  // An index entry: a slot's position relative to first_ (~0U: empty) and the high half
  // of its key's lookup hash, which settles most mismatches without reading the slot.
  struct index_entry {
    unsigned pos;
    unsigned tag;
  };
  using index_type = zel::vector_num<index_entry, 8>;
  // Links walked from a home bucket before the index takes over: long enough for the
  // chains of ordinary numberings, short enough that no numbering makes a walk costly.
  static constexpr unsigned chain_limit = 4;

  static void clear_slot(slot_type& slot) {
    stored_key<Value>::mark_unused(slot.value);
    slot.link = 0;
  }

  // Room for `count` slots from the start of the storage, keeping the slots in use.
  bool reserve_slots(std::size_t count) {
    if (storage_) return storage_->grow(count, first_ + used_);
    buffer_type* buffer = buffer_type::create(count);
    if (!buffer) return false;
    storage_ = buffer;
    return true;
  }

  std::size_t index_capacity() const { return index_ ? index_mask_ + 1 : 0; }

  // Where a lookup ended: the entry's position, or npos with the last slot of the key's
  // chain (npos when its home bucket is free) and the number of links walked to it.
  struct place_found {
    std::size_t pos, home, tail;
    unsigned links;
  };

  // The entry equal to key whose home bucket is home_pos. The chain from the home bucket
  // is walked up to chain_limit links; a chain that long continues in the index.
  place_found lookup(std::size_t home_pos, const key_type& key) const {
    TESSEL3D_DEBUG_ASSERT(home_pos >= first_ && home_pos < first_ + buckets_);  // a home of this bucket count
    const slot_type* slots = storage_->data();
    std::size_t pos = home_pos;
    ++probes_;
    if (!(slots[pos].link & 1u)) return {npos, home_pos, npos, 0};
    unsigned links = 0;
    for (;;) {
      if (Match::accepts(compare_keys(stored_key<Value>::of(slots[pos].value), key)))
        return {pos, home_pos, pos, links};
      const unsigned link = slots[pos].link;
      if (link < 2) break;
      pos += link >> 1;
      TESSEL3D_DEBUG_ASSERT(pos < first_ + used_ && links < chain_limit);  // links point forward, chains stay short
      ++links;
      ++probes_;
    }
    if (links < chain_limit || !index_) return {npos, home_pos, pos, links};
    TESSEL3D_DEBUG_ASSERT(2 * indexed_ <= index_capacity());  // an empty entry ends every probe run
    const std::uint64_t mixed = lookup_hash(seed_, key);
    const unsigned tag = static_cast<unsigned>(mixed >> 32);
    const index_entry* index = index_->data();
    for (std::size_t i = mixed & index_mask_;; i = (i + 1) & index_mask_) {
      ++probes_;
      const index_entry e = index[i];
      if (e.pos == ABSENT) return {npos, home_pos, pos, links};
      if (e.tag == tag && Match::accepts(compare_keys(stored_key<Value>::of(slots[first_ + e.pos].value), key)))
        return {first_ + e.pos, home_pos, pos, links};
    }
  }

  // Where the lookup of a key known to be absent would end, without comparing keys.
  place_found chain_end(std::size_t home_pos) const {
    const slot_type* slots = storage_->data();
    if (!(slots[home_pos].link & 1u)) return {npos, home_pos, npos, 0};
    std::size_t pos = home_pos;
    unsigned links = 0;
    for (; slots[pos].link >= 2; ++links) pos += slots[pos].link >> 1;
    return {npos, home_pos, pos, links};
  }

  // Adds the slot at `pos` to the index (which has room and does not hold it).
  void record(std::size_t pos) {
    TESSEL3D_DEBUG_ASSERT(pos >= first_ && pos < first_ + used_ && 2 * (indexed_ + 1) <= index_capacity());
    const std::uint64_t mixed = lookup_hash(seed_, stored_key<Value>::of(storage_->data()[pos].value));
    index_entry* index = index_->data();
    std::size_t i = mixed & index_mask_;
    for (++probes_; index[i].pos != ABSENT; ++probes_) i = (i + 1) & index_mask_;
    index[i] = {static_cast<unsigned>(pos - first_), static_cast<unsigned>(mixed >> 32)};
  }

  // An index at most half full with room for one more entry than it holds, holding the
  // same slots. False (the old index kept) when memory runs out.
  bool index_room() {
    if (2 * (indexed_ + 1) <= index_capacity()) return true;
    std::size_t capacity = 16;
    while (capacity < 4 * (indexed_ + 1)) capacity *= 2;
    index_type* fresh = index_type::create(capacity);
    if (!fresh) return false;
    for (std::size_t i = 0; i < capacity; ++i) fresh->data()[i] = {ABSENT, 0};
    const zel::Ptr<index_type> old = index_;
    const std::size_t old_capacity = index_capacity();
    index_ = fresh;
    index_mask_ = capacity - 1;
    for (std::size_t i = 0; i < old_capacity; ++i)
      if (old->data()[i].pos != ABSENT) record(first_ + old->data()[i].pos);
    return true;
  }

  // Stores a key that the table does not hold, `at` being where its lookup ended: in its
  // home bucket when that is free, else in a new overflow slot linked from the end of
  // its chain, or recorded in the index when the chain is full. npos when the slots or
  // the index could not grow, or when a position would not fit a link or an index word.
  std::size_t add(const place_found& at, const Value& value) {
    slot_type* slots = storage_->data();
    // `at` is the end of the key's chain: a free home bucket, or a live slot without a link.
    TESSEL3D_DEBUG_ASSERT(at.tail == npos ? !(slots[at.home].link & 1u)
                                          : at.tail >= first_ && at.tail < first_ + used_ && slots[at.tail].link == 1u);
    if (at.tail == npos) {  // a free home bucket
      slots[at.home].value = value;
      slots[at.home].link |= 1u;
      ++entries_;
      return at.home;
    }
    const std::size_t fresh = first_ + used_;
    const bool linked = at.links < chain_limit;
    if (linked ? fresh - at.tail > 0x7FFFFFFFu : fresh >= ABSENT || !index_room()) return npos;
    if (fresh >= storage_->capacity()) {
      const std::size_t capacity = storage_->capacity();
      std::size_t grown = 2 * capacity > 2 ? 2 * capacity : 2;
      if (grown < fresh + 1) grown = fresh + 1;
      if (!storage_->grow(grown, fresh)) return npos;
      slots = storage_->data();
    }
    slots[fresh].value = value;
    slots[fresh].link = 1u;
    ++used_;
    if (linked) {
      slots[at.tail].link = static_cast<unsigned>(((fresh - at.tail) << 1) + 1);
    } else {
      record(fresh);
      ++indexed_;
    }
    ++entries_;
    return fresh;
  }

  zel::Ptr<buffer_type> storage_;
  std::size_t used_ = 0;
  std::size_t first_ = 0;
  std::size_t buckets_ = 0;
  std::size_t entries_ = 0;
  double max_load_ = 1.0;
  zel::Ptr<index_type> index_;  // the slots past full chains, by lookup_hash; built on demand
  std::size_t index_mask_ = 0;
  std::size_t indexed_ = 0;
  std::uint64_t seed_ = 0;
  // Relaxed load and store, not a locked add: lookups of one table from several threads
  // are no data race, and cost what a plain counter costs.
  struct probe_counter {
    std::atomic<std::size_t> n{0};
    probe_counter() = default;
    probe_counter(const probe_counter& other) : n(std::size_t(other)) {}
    probe_counter& operator=(const probe_counter& other) { return *this = std::size_t(other); }
    probe_counter& operator=(std::size_t v) {
      n.store(v, std::memory_order_relaxed);
      return *this;
    }
    operator std::size_t() const { return n.load(std::memory_order_relaxed); }
    probe_counter& operator++() { return *this = std::size_t(*this) + 1; }
  };
  mutable probe_counter probes_;
};

}  // namespace elfes
