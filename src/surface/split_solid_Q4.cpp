// split_solid_Q4: makes a solid mesh conform to a triangulated interface. Every solid
// that carries a listed quadrangle is cut into elements around an apex (its own for a
// pyramid, a new centre node for a wedge or hexahedron), one or two per face, so that
// each listed quadrangle becomes two triangles and every other face stays as it was.
//
// The work is four walks: the listed quadrangles go into a face map; the solids are
// walked once to find those that carry one, scoring both cuts of each listed face; each
// such solid is then judged with the cuts chosen; the output is finally written in the
// order of the input columns. Only the second walk touches every solid's faces.
//
// The conforming form maps both orientations of a listed face to one record, so every
// solid on the face carries it, and judges the carriers from a work list: a solid that
// fails keeps its listed faces whole, which sends the other carriers of those faces back
// to be judged again with a pyramid on them. A face only ever turns from cut to whole,
// so each carrier is judged at most once per listed face it has, plus once.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "common/element_tables.h"
#include "common/shared_memory.h"
#include "common/vec3.h"
#include "measures/dihedral_kernel.h"
#include "order/hash_tables.h"
#include "order/solid_columns.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

using elfes::solid_descriptor;
using elfes::solid_kind;
using elfes::solid_table;
using elfes::vec3;

// Listed quadrangle (as listed, same orientation only) -> index of its face record. A
// quadrangle and its reverse are two keys sharing one record, so that the cut chosen
// for the face is the same from both sides.
using face_map = elfes::hash_table<elfes::map_entry<elfes::faceQ4, std::size_t>, elfes::same_orientation>;

constexpr std::size_t none = ~std::size_t(0);
constexpr unsigned centre = 8;  // local index of a wedge's or hexahedron's new node
constexpr unsigned whole = 2;   // cut of a face that is not split

// Per solid that carries a listed face: its column, its number of pieces (0: left
// whole), and the record of each of its faces (none when the face is not listed).
constexpr std::size_t carrier_stride = 8;

// The two tetrahedra on quadrangle positions 0-3 cut along 0-2 (cut 0) or 1-3 (cut 1).
// Face normals point into the solid, so each triangle is reversed: TH4 node 3 lies on
// the negative side of 0 -> 1 -> 2 in a positive tetrahedron.
constexpr unsigned quad_halves[2][2][3] = {{{2, 1, 0}, {3, 2, 0}}, {{3, 2, 1}, {0, 3, 1}}};

// An element made from a solid's local nodes (0-7 its corners, `centre` its new node).
struct piece {
  unsigned nb_nodes;  // 4 (TH4) or 5 (PY5)
  unsigned node[5];
};

struct piece_list {
  unsigned count = 0;
  piece item[12];  // at most two tetrahedra on each of six faces
};

// Reads the solid's own points and the apex built from them.
struct point_reader {
  static constexpr bool may_be_absent = false;
  const vec3* point;
  vec3 operator()(unsigned id) const { return point[id]; }
};

solid_kind column_kind(const unsigned* column, std::size_t rows) {
  if (rows == 5) return elfes::kind_PY5;
  if (rows == 6) return elfes::kind_W6;
  return elfes::mixed8_kind(column);
}

// A pyramid is cut through its own apex (node 4); wedges and hexahedra get a new node.
unsigned apex_of(solid_kind kind) { return kind == elfes::kind_PY5 ? 4 : centre; }

elfes::faceQ4 face_key(const unsigned* column, const solid_descriptor& d, unsigned f) {
  const unsigned* v = d.faces[f];
  return {{column[v[0]], column[v[1]], column[v[2]], column[v[3]]}};
}

// The cut (0: positions 0-2, 1: positions 1-3) whose node pair, sorted, is the smaller.
// It depends on the face's nodes only, not on where the listing starts or which way it
// turns, so both orientations of a face name the same diagonal first.
unsigned first_diagonal(const elfes::faceQ4& face) {
  const unsigned* n = face.node;
  const unsigned lo0 = n[0] < n[2] ? n[0] : n[2], hi0 = n[0] < n[2] ? n[2] : n[0];
  const unsigned lo1 = n[1] < n[3] ? n[1] : n[3], hi1 = n[1] < n[3] ? n[3] : n[1];
  return (lo1 < lo0 || (lo1 == lo0 && hi1 < hi0)) ? 1 : 0;
}

// A record holds the smallest quality each diagonal would give (first, then the other)
// over every solid that carries the face in either orientation. The better one wins, the
// first on a tie; a NaN score loses to a number.
unsigned chosen_diagonal(const double* score) {
  return (score[1] > score[0] || (score[0] != score[0] && score[1] == score[1])) ? 1 : 0;
}

// Folds x into a record score, passing a NaN on.
void fold_smallest(double& score, double x) {
  if (!(x >= score)) score = x;
}

// The elements on face f with the given apex: a TH4 on a triangle, a PY5 on a
// quadrangle kept whole, two TH4 on a quadrangle cut along `cut`.
void face_pieces(const solid_descriptor& d, unsigned f, unsigned cut, unsigned apex, piece_list& out) {
  const unsigned* v = d.faces[f];
  if (d.face_size[f] == 3) {
    out.item[out.count++] = {4, {v[2], v[1], v[0], apex, 0}};
  } else if (cut == whole) {
    out.item[out.count++] = {5, {v[0], v[1], v[2], v[3], apex}};
  } else {
    for (const auto& half : quad_halves[cut])
      out.item[out.count++] = {4, {v[half[0]], v[half[1]], v[half[2]], apex, 0}};
  }
}

// A pyramid gives the two tetrahedra of its base; a wedge or hexahedron an element on
// each face, in its face order.
void solid_pieces(solid_kind kind, const unsigned (&cut)[6], piece_list& out) {
  const solid_descriptor& d = solid_table[kind];
  out.count = 0;
  if (kind == elfes::kind_PY5) {
    face_pieces(d, 4, cut[4], 4, out);
    return;
  }
  for (unsigned f = 0; f < d.nb_faces; ++f) face_pieces(d, f, cut[f], centre, out);
}

double piece_quality(const piece& e, const vec3* p) {
  const point_reader node{p};
  return e.nb_nodes == 4 ? elfes::smallest_dihedral<elfes::kind_TH4>(e.node, node)
                         : elfes::smallest_dihedral<elfes::kind_PY5>(e.node, node);
}

// The mean of a solid's corners, summed in corner order (the new node and the apex the
// pieces were judged with are the same point, bit for bit).
vec3 corner_mean(const vec3* p, unsigned nb) {
  vec3 sum = p[0];
  for (unsigned k = 1; k < nb; ++k) sum = sum + p[k];
  return {sum.x / nb, sum.y / nb, sum.z / nb};
}

// The corners of a column and, for a wedge or hexahedron, their mean at p[centre].
void load_solid(const unsigned* column, solid_kind kind, const elfes::node_reader& node, vec3 (&p)[9]) {
  const unsigned nb = solid_table[kind].nb_vertices;
  for (unsigned k = 0; k < nb; ++k) p[k] = node(column[k]);
  if (kind != elfes::kind_PY5) p[centre] = corner_mean(p, nb);
}

// What becomes of a carrier in the conforming form.
enum carrier_state : unsigned char { to_split, below_quality, faces_kept_whole };

struct splitter {
  splitter(dense2D<double>& xyz, const dense2D<unsigned>& solids, const dense2D<unsigned>& listed, double threshold,
           dense2D<unsigned>& output, dense1D<unsigned, 8>* left_whole, dense2D<unsigned>* reasons)
      : coords(xyz),
        connect(solids),
        quads(listed),
        min_quality(threshold),
        out(output),
        failed(left_whole),
        failed_reasons(reasons),
        conforming(reasons != nullptr) {}

  dense2D<double>& coords;
  dense2D<unsigned> connect;  // shallow copies: the outputs may share the inputs' buffers
  dense2D<unsigned> quads;
  double min_quality;
  dense2D<unsigned>& out;
  dense1D<unsigned, 8>* failed;       // the form that keeps one side whole
  dense2D<unsigned>* failed_reasons;  // the conforming form
  bool conforming;
  dense1D<unsigned char, 8> record_whole;  // conforming: 1 for a listed face kept whole
  dense1D<unsigned char, 8> state;         // conforming: a carrier_state per carrier

  face_map faces;
  dense1D<unsigned char, 8> listed_node;  // 1 for a corner of a listed quadrangle
  std::size_t nb_records = 0;
  dense1D<double, 8> scores;         // two per record
  dense1D<std::size_t, 8> carriers;  // carrier_stride per carrier
  std::size_t nb_out = 0, nb_new_nodes = 0;
};

int check_arguments(const splitter& s) {
  if (s.coords.rows() != 3) return -1;
  const unsigned nb_nodes = static_cast<unsigned>(s.coords.cols());
  const dense2D<unsigned>& connect = s.connect;
  if (connect.cols() != 0) {
    const std::size_t R = connect.rows();
    if (R != 5 && R != 6 && R != 8) return -2;
    const zel::element_type type = R == 5 ? PY5 : R == 6 ? W6 : SOLID_MIX8;
    if (!tessel::check_IDs(connect, type, nb_nodes)) return -2;
    if (R == 8) {
      // A mixed column whose kind needs an absent node has no shape to split.
      const unsigned* column = connect.data();
      for (std::size_t j = 0; j < connect.cols(); ++j, column += connect.ld())
        if (!elfes::vertices_present(column, elfes::mixed8_kind(column))) return -2;
    }
  }
  if (s.quads.cols() != 0 && (s.quads.rows() != 4 || !tessel::check_IDs(s.quads, Q4, nb_nodes))) return -3;
  if (!std::isfinite(s.min_quality)) return -4;
  return 0;
}

// The listed quadrangles into the face map; a new key shares the record of its
// reverse when that is listed too. Their corners are marked, so that the walk over the
// solids looks up only the faces whose four corners are marked.
bool list_quads(splitter& s) {
  const std::size_t n = s.quads.cols();
  const std::size_t buckets = elfes::next_prime(n);
  if (!s.listed_node.resize(s.coords.cols(), 0)) return false;
  const std::size_t keys = s.conforming ? 2 * n : n;
  if (!s.faces.reset(keys < 2 * buckets ? keys : 2 * buckets, buckets, 1.0)) return false;
  const unsigned* q = s.quads.data();
  for (std::size_t j = 0; j < n; ++j, q += s.quads.ld()) {
    for (unsigned i = 0; i < 4; ++i) s.listed_node[q[i]] = 1;
    const elfes::faceQ4 key{{q[0], q[1], q[2], q[3]}};
    const std::uint64_t h = elfes::hash_key(key);
    bool added = false;
    const std::size_t pos = s.faces.insert(h, {key, none}, &added);
    if (pos == face_map::npos) return false;
    if (!added) continue;  // listed twice the same way (or, conforming, the other way)
    const elfes::faceQ4 reverse{{q[0], q[3], q[2], q[1]}};
    if (s.conforming) {
      // Both orientations name the record, so every solid on the face carries it.
      s.faces.value(pos).second = s.nb_records;
      if (s.faces.insert(h, {reverse, s.nb_records++}) == face_map::npos) return false;
      continue;
    }
    const std::size_t other = s.faces.find(h, reverse);
    const bool paired = other != s.faces.end() && other != pos;  // a face can be its own reverse
    s.faces.value(pos).second = paired ? s.faces.value(other).second : s.nb_records++;
  }
  return s.scores.resize(2 * s.nb_records, std::numeric_limits<double>::infinity()) &&
         (!s.conforming || s.record_whole.resize(s.nb_records, 0));
}

// Finds the solids that carry a listed face and scores both cuts of each such face by
// the smallest quality of its two tetrahedra.
bool find_carriers(splitter& s) {
  const elfes::node_reader node{s.coords.data(), s.coords.ld()};
  const unsigned char* marked = s.listed_node.data();
  const std::size_t R = s.connect.rows();
  const unsigned* column = s.connect.data();
  for (std::size_t j = 0; j < s.connect.cols(); ++j, column += s.connect.ld()) {
    const solid_kind kind = column_kind(column, R);
    const solid_descriptor& d = solid_table[kind];
    std::size_t record[6] = {none, none, none, none, none, none};
    bool carries = false;
    for (unsigned f = 0; f < d.nb_faces; ++f) {
      if (d.face_size[f] != 4) continue;  // a TH4 has none: it is copied
      const unsigned* v = d.faces[f];
      if (!(marked[column[v[0]]] & marked[column[v[1]]] & marked[column[v[2]]] & marked[column[v[3]]])) continue;
      const elfes::faceQ4 key = face_key(column, d, f);
      const std::size_t pos = s.faces.find(elfes::hash_key(key), key);
      if (pos == s.faces.end()) continue;
      record[f] = s.faces.value(pos).second;
      carries = true;
    }
    if (!carries) continue;
    if (!s.carriers.push_back(j) || !s.carriers.push_back(0)) return false;
    for (std::size_t r : record)
      if (!s.carriers.push_back(r)) return false;

    vec3 p[9];
    load_solid(column, kind, node, p);
    for (unsigned f = 0; f < d.nb_faces; ++f) {
      if (record[f] == none) continue;
      const unsigned first = first_diagonal(face_key(column, d, f));
      for (unsigned cut = 0; cut < 2; ++cut) {
        piece_list halves;
        face_pieces(d, f, cut, apex_of(kind), halves);
        double& score = s.scores[2 * record[f] + (cut ^ first)];
        fold_smallest(score, piece_quality(halves.item[0], p));
        fold_smallest(score, piece_quality(halves.item[1], p));
      }
    }
  }
  return true;
}

// The cut of every face of a carrier: whole, or the diagonal its record chose.
void carrier_cuts(const splitter& s, const unsigned* column, solid_kind kind, const std::size_t* record,
                  unsigned (&cut)[6]) {
  const solid_descriptor& d = solid_table[kind];
  for (unsigned f = 0; f < 6; ++f) {
    cut[f] = whole;
    if (f < d.nb_faces && record[f] != none && !(s.conforming && s.record_whole[record[f]]))
      cut[f] = chosen_diagonal(s.scores.data() + 2 * record[f]) ^ first_diagonal(face_key(column, d, f));
  }
}

// Splits a carrier only when every piece is above the threshold (a NaN quality is not).
bool judge_carriers(splitter& s) {
  const elfes::node_reader node{s.coords.data(), s.coords.ld()};
  const std::size_t R = s.connect.rows();
  s.nb_out = s.connect.cols();
  for (std::size_t c = 0; c < s.carriers.size(); c += carrier_stride) {
    const std::size_t j = s.carriers[c];
    const unsigned* column = s.connect.data() + j * s.connect.ld();
    const solid_kind kind = column_kind(column, R);
    unsigned cut[6];
    carrier_cuts(s, column, kind, s.carriers.data() + c + 2, cut);
    piece_list pieces;
    solid_pieces(kind, cut, pieces);
    vec3 p[9];
    load_solid(column, kind, node, p);
    bool good = true;
    for (unsigned k = 0; k < pieces.count && good; ++k) good = piece_quality(pieces.item[k], p) > s.min_quality;
    if (!good) {
      if (!s.failed->push_back(static_cast<unsigned>(j))) return false;
      continue;
    }
    s.carriers[c + 1] = pieces.count;
    s.nb_out += pieces.count - 1;
    if (kind != elfes::kind_PY5) ++s.nb_new_nodes;
  }
  return true;
}

// The pieces of carrier c (at carriers[c]) with the cuts its faces have now; false
// when none of its listed faces is cut any more.
bool carrier_pieces(const splitter& s, std::size_t c, piece_list& pieces) {
  const unsigned* column = s.connect.data() + s.carriers[c] * s.connect.ld();
  const solid_kind kind = column_kind(column, s.connect.rows());
  unsigned cut[6];
  carrier_cuts(s, column, kind, s.carriers.data() + c + 2, cut);
  bool any_cut = false;
  for (unsigned f = 0; f < 6; ++f) any_cut = any_cut || cut[f] != whole;
  if (!any_cut) return false;
  solid_pieces(kind, cut, pieces);
  return true;
}

// Judges every carrier from a work list until no listed face changes: a carrier whose
// pieces are not all above the threshold keeps its listed faces whole, and the other
// carriers of those faces are judged again. `member` lists the carriers of each record
// (from `first[r]` to `first[r + 1]`), so that a face turned whole finds them.
bool judge_conforming(splitter& s) {
  const std::size_t nb_carriers = s.carriers.size() / carrier_stride;
  dense1D<std::size_t, 8> first, member, work;
  dense1D<unsigned char, 8> queued;
  if (!first.resize(s.nb_records + 1, 0) || !s.state.resize(nb_carriers, to_split) || !queued.resize(nb_carriers, 1) ||
      !work.resize(nb_carriers))
    return false;
  for (std::size_t c = 0; c < s.carriers.size(); c += carrier_stride)
    for (unsigned f = 0; f < 6; ++f)
      if (s.carriers[c + 2 + f] != none) ++first[s.carriers[c + 2 + f] + 1];
  for (std::size_t r = 0; r < s.nb_records; ++r) first[r + 1] += first[r];
  dense1D<std::size_t, 8> next;
  if (!next.copy(first) || !member.resize(first[s.nb_records])) return false;
  for (std::size_t c = 0; c < s.carriers.size(); c += carrier_stride)
    for (unsigned f = 0; f < 6; ++f)
      if (s.carriers[c + 2 + f] != none) member[next[s.carriers[c + 2 + f]]++] = c / carrier_stride;

  // A stack: the carriers in column order, each one a failure sends back taken next.
  for (std::size_t k = 0; k < nb_carriers; ++k) work[k] = nb_carriers - 1 - k;
  std::size_t pending = nb_carriers;
  const elfes::node_reader node{s.coords.data(), s.coords.ld()};
  while (pending != 0) {
    const std::size_t k = work[--pending];
    queued[k] = 0;
    if (s.state[k] == below_quality) continue;
    const std::size_t c = k * carrier_stride;
    piece_list pieces;
    if (!carrier_pieces(s, c, pieces)) {
      s.state[k] = faces_kept_whole;
      continue;
    }
    const unsigned* column = s.connect.data() + s.carriers[c] * s.connect.ld();
    vec3 p[9];
    load_solid(column, column_kind(column, s.connect.rows()), node, p);
    bool good = true;
    for (unsigned i = 0; i < pieces.count && good; ++i) good = piece_quality(pieces.item[i], p) > s.min_quality;
    if (good) continue;
    s.state[k] = below_quality;
    for (unsigned f = 0; f < 6; ++f) {
      const std::size_t r = s.carriers[c + 2 + f];
      if (r == none || s.record_whole[r]) continue;
      s.record_whole[r] = 1;
      for (std::size_t m = first[r]; m < first[r + 1]; ++m) {
        const std::size_t other = member[m];
        if (queued[other] || s.state[other] == below_quality) continue;
        queued[other] = 1;
        work[pending++] = other;  // at most once in the list: room for every carrier
      }
    }
  }

  // The split carriers' pieces and new nodes; the others, and those split with a listed
  // face kept whole, with their reason.
  s.nb_out = s.connect.cols();
  std::size_t nb_failed = 0;
  for (std::size_t k = 0; k < nb_carriers; ++k) {
    const std::size_t c = k * carrier_stride;
    piece_list pieces;
    if (s.state[k] != below_quality && carrier_pieces(s, c, pieces)) {
      s.carriers[c + 1] = pieces.count;
      s.nb_out += pieces.count - 1;
      const unsigned* column = s.connect.data() + s.carriers[c] * s.connect.ld();
      if (column_kind(column, s.connect.rows()) != elfes::kind_PY5) ++s.nb_new_nodes;
      bool partly = false;
      for (unsigned f = 0; f < 6; ++f) {
        const std::size_t r = s.carriers[c + 2 + f];
        partly = partly || (r != none && s.record_whole[r]);
      }
      s.state[k] = partly ? faces_kept_whole : to_split;
    } else if (s.state[k] != below_quality) {
      s.state[k] = faces_kept_whole;
    }
    nb_failed += s.state[k] != to_split;
  }
  if (!s.failed_reasons->resize(2, nb_failed)) return false;
  unsigned* row = s.failed_reasons->data();
  for (std::size_t k = 0; k < nb_carriers; ++k) {
    if (s.state[k] == to_split) continue;
    const std::size_t c = k * carrier_stride;
    row[0] = static_cast<unsigned>(s.carriers[c]);
    row[1] = s.state[k] == below_quality ? split_Q4_below_quality
             : s.carriers[c + 1] == 0    ? split_Q4_faces_kept_whole
                                         : split_Q4_partly_split;
    row += s.failed_reasons->ld();
  }
  return true;
}

// Copies the solids left whole and writes the pieces of the others, creating their new
// nodes in column order. The output holds ~0U everywhere beforehand.
void write_output(splitter& s, std::size_t nb_nodes) {
  const std::size_t R = s.connect.rows(), ld_in = s.connect.ld(), ld_out = s.out.ld(), ld_xyz = s.coords.ld();
  const elfes::node_reader node{s.coords.data(), ld_xyz};
  const unsigned* column = s.connect.data();
  unsigned* out = s.out.data();
  std::size_t c = 0, next_node = nb_nodes;
  for (std::size_t j = 0; j < s.connect.cols(); ++j, column += ld_in) {
    const bool carrier = c < s.carriers.size() && s.carriers[c] == j;
    const std::size_t nb_pieces = carrier ? s.carriers[c + 1] : 0;
    if (nb_pieces == 0) {
      for (std::size_t i = 0; i < R; ++i) out[i] = column[i];
      out += ld_out;
      if (carrier) c += carrier_stride;
      continue;
    }
    const solid_kind kind = column_kind(column, R);
    unsigned cut[6];
    carrier_cuts(s, column, kind, s.carriers.data() + c + 2, cut);
    piece_list pieces;
    solid_pieces(kind, cut, pieces);
    unsigned local[9];
    for (unsigned k = 0; k < 8; ++k) local[k] = column[k < R ? k : 0];
    if (kind != elfes::kind_PY5) {
      vec3 p[9];
      load_solid(column, kind, node, p);
      double* xyz = s.coords.data() + next_node * ld_xyz;
      xyz[0] = p[centre].x;
      xyz[1] = p[centre].y;
      xyz[2] = p[centre].z;
      local[centre] = static_cast<unsigned>(next_node++);
    }
    for (unsigned k = 0; k < pieces.count; ++k, out += ld_out)
      for (unsigned i = 0; i < pieces.item[k].nb_nodes; ++i) out[i] = local[pieces.item[k].node[i]];
    c += carrier_stride;
  }
}

int split(splitter& s) {
  s.out.clear();
  if (s.failed) s.failed->clear();
  if (s.failed_reasons) s.failed_reasons->clear();
  if (const int status = check_arguments(s)) return status;
  const std::size_t nb_nodes = s.coords.cols();
  const bool listed = s.quads.cols() != 0 && s.connect.cols() != 0;
  bool done = !listed || (list_quads(s) && find_carriers(s));
  s.faces = face_map();  // the map and marks are no longer needed: give their memory back
  s.listed_node = dense1D<unsigned char, 8>();
  done = done && (s.conforming ? judge_conforming(s) : judge_carriers(s));
  // The absent marker can never become a node ID.
  done = done && std::uint64_t(nb_nodes) + s.nb_new_nodes <= std::uint64_t(tessel::ABSENT) &&
         s.out.resize(8, s.nb_out, tessel::ABSENT) && s.coords.resize(3, nb_nodes + s.nb_new_nodes);
  if (!done) {
    // coords grows last, and a failed resize changes nothing: it keeps its columns.
    s.out.clear();
    if (s.failed) s.failed->clear();
    if (s.failed_reasons) s.failed_reasons->clear();
    return tessel::OUT_OF_MEMORY;
  }
  write_output(s, nb_nodes);
  return 0;
}

// Both forms: inputs that share memory with an output are read from private copies, so
// that the call gives what it gives on separate matrices; two outputs in one buffer are
// refused.
template <class Failed>
int split_apart(dense2D<double>& coords, const dense2D<unsigned>& connect, const dense2D<unsigned>& quads,
                double min_quality, dense2D<unsigned>& connectOut, Failed& failed) {
  if (elfes::share_memory(connectOut, failed)) return -6;
  if (elfes::shares_with_any(connectOut, connect, quads) || elfes::shares_with_any(failed, connect, quads) ||
      elfes::shares_with_any(coords, connect, quads)) {
    dense2D<unsigned> own_connect, own_quads;  // the outputs are cleared first
    if (!own_connect.copy(connect) || !own_quads.copy(quads)) return tessel::OUT_OF_MEMORY;
    return split_apart(coords, own_connect, own_quads, min_quality, connectOut, failed);
  }
  if constexpr (std::is_same_v<Failed, dense1D<unsigned, 8>>) {
    splitter s(coords, connect, quads, min_quality, connectOut, &failed, nullptr);
    return split(s);
  } else {
    splitter s(coords, connect, quads, min_quality, connectOut, nullptr, &failed);
    return split(s);
  }
}

}  // namespace

int split_solid_Q4(dense2D<double>& coords, const dense2D<unsigned>& connect, const dense2D<unsigned>& quads,
                   double min_quality, dense2D<unsigned>& connectOut, dense1D<unsigned, 8>& failed) {
  return split_apart(coords, connect, quads, min_quality, connectOut, failed);
}

int split_solid_Q4(dense2D<double>& coords, const dense2D<unsigned>& connect, const dense2D<unsigned>& quads,
                   double min_quality, dense2D<unsigned>& connectOut, dense2D<unsigned>& failed) {
  return split_apart(coords, connect, quads, min_quality, connectOut, failed);
}

}  // namespace tessel3d
}  // namespace zel
