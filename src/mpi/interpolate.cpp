// interpolate / interpolate_metrics over MPI: values of a partitioned TH4 mesh read at
// points held by any rank, in the element holding each point (the lowest global element
// ID among all ranks), else at the closest point of the mesh's boundary.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>

#include "locate/box_tree.h"
#include "locate/metric_mix.h"
#include "locate/node_placement.h"
#include "locate/th4_exit_face.h"
#include "locate/triangle_projection.h"
#include "mpi/global_boundary.h"
#include "zel/tessel3d_mpi.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace {

using detail::agree;
using detail::guarded;
using detail::out_of_memory;
using point3 = std::array<double, 3>;

// The tolerance at which a point counts as inside across a face between two elements
// (rounding), as the one-machine interpolation takes it.
constexpr double inner_face_tolerance = 1e-9;
// Rank boxes are widened by this share of their extent before routing a point: far more
// than the tolerance above needs.
constexpr double rank_box_widening = 1e-6;
constexpr unsigned no_item = ~0U;

// A reply about one point: key (the level 0 inside, 1 within the tolerance, 2 none; or
// the squared distance to the nearest boundary face), the global element ID, the local
// face (for ties) and whether a value follows, then the value's components.
constexpr std::size_t reply_header = 4;

double id_as_double(std::uint64_t id) {
  double d;
  std::memcpy(&d, &id, sizeof d);
  return d;
}
std::uint64_t double_as_id(double d) {
  std::uint64_t id;
  std::memcpy(&id, &d, sizeof id);
  return id;
}

bool finite3(const double* p) { return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]); }

void box_of_points(const double* const* node, unsigned count, double* box) {
  for (unsigned d = 0; d < 3; ++d) {
    box[d] = box[d + 3] = node[0][d];
    for (unsigned k = 1; k < count; ++k) {
      box[d] = std::fmin(box[d], node[k][d]);
      box[d + 3] = std::fmax(box[d + 3], node[k][d]);
    }
  }
}

void empty_box(double* box) {
  for (unsigned d = 0; d < 3; ++d) box[d] = INFINITY, box[d + 3] = -INFINITY;
}

// The rank's part prepared for queries: trees of its elements and of its faces on the
// mesh's boundary, and which faces those are.
class local_source {
 public:
  explicit local_source(const part& mesh) : mesh_(mesh) {}

  /// Collective: 0 | -199 on any rank.
  int build(MPI_Comm comm) {
    const dense2D<unsigned>& t = mesh_.connect;
    const std::size_t nb_elements = t.cols();
    std::vector<detail::face_key> keys;
    std::vector<unsigned> key_items;  // 4 e + f of each key
    int status = guarded([&] {
      dense2D<unsigned> neighbors;
      if (tessel::get_neighbors(t, TH4, neighbors) != 0) return out_of_memory;
      boundary_.assign(4 * nb_elements, 0);
      for (std::size_t e = 0; e < nb_elements; ++e)
        for (unsigned f = 0; f < 4; ++f) {
          if (neighbors(f, e) != tessel::NO_ELEMENT) continue;
          const unsigned* face = elfes::th4_faces[f];
          keys.push_back(detail::sorted_face_key(mesh_.node_ids[t(face[0], e)], mesh_.node_ids[t(face[1], e)],
                                                 mesh_.node_ids[t(face[2], e)]));
          key_items.push_back(unsigned(4 * e + f));
        }
      return 0;
    });
    if ((status = agree(comm, status)) != 0) return status;
    std::vector<unsigned char> alone;
    if ((status = detail::faces_on_mesh_boundary(comm, keys, alone)) != 0) return status;
    status = guarded([&] {
      std::vector<unsigned> faces;
      for (std::size_t k = 0; k < keys.size(); ++k)
        if (alone[k]) {
          boundary_[key_items[k]] = 1;
          faces.push_back(key_items[k]);
        }
      if (locator_.build(mesh_.coords, t) != 0) return out_of_memory;
      empty_box(element_box_);
      for (std::size_t e = 0; e < nb_elements; ++e) {
        double box[6];
        element_box(unsigned(e), box);
        bool finite = true;
        for (double v : box) finite &= std::isfinite(v);
        for (unsigned d = 0; d < 3 && finite; ++d) {
          element_box_[d] = std::fmin(element_box_[d], box[d]);
          element_box_[d + 3] = std::fmax(element_box_[d + 3], box[d + 3]);
        }
      }
      // The elements around each node (compressed rows).
      around_first_.assign(mesh_.coords.cols() + 1, 0);
      for (std::size_t e = 0; e < nb_elements; ++e)
        for (unsigned k = 0; k < 4; ++k) ++around_first_[t(k, e) + 1];
      for (std::size_t n = 0; n < mesh_.coords.cols(); ++n) around_first_[n + 1] += around_first_[n];
      around_.resize(4 * nb_elements);
      std::vector<std::size_t> next(around_first_.begin(), around_first_.end() - 1);
      for (std::size_t e = 0; e < nb_elements; ++e)
        for (unsigned k = 0; k < 4; ++k) around_[next[t(k, e)]++] = unsigned(e);
      auto face_box = [&](unsigned k, double* box) {
        const double* corner[3];
        face_corners(faces[k], corner);
        box_of_points(corner, 3, box);
      };
      if (faces_.build(faces.size(), face_box) != 0) return out_of_memory;
      for (std::size_t k = 0; k < faces_.items.size(); ++k) faces_.items[k] = faces[faces_.items[k]];
      return 0;
    });
    return agree(comm, status);
  }

  /// Box of the elements (those with a finite box), then of the boundary faces: 12 values.
  void boxes(double* out) const {
    std::copy(element_box_, element_box_ + 6, out);
    if (faces_.items.empty())
      empty_box(out + 6);
    else
      std::copy(faces_.nodes.data(), faces_.nodes.data() + 6, out + 6);
  }

  /// The element with the lowest global ID whose barycentric coordinates at p are all
  /// >= -tolerance (with a positive tolerance, not across a face on the mesh's
  /// boundary), and its weights clamped to [0, 1] and summing to 1. The locator finds one
  /// element holding p; any other touches it, so the elements around its nodes are the
  /// candidates.
  bool holding_element(const double* p, double tolerance, unsigned& best, double* lambda) const {
    best = no_item;
    unsigned found;
    if (locator_.find(vector_fixed<double, 3>(p[0], p[1], p[2]), found, tolerance) != 1) return false;
    const unsigned* corners = column(found);
    for (unsigned k = 0; k < 4; ++k)
      for (std::size_t i = around_first_[corners[k]]; i < around_first_[corners[k] + 1]; ++i) {
        const unsigned e = around_[i];
        if (best != no_item && mesh_.element_ids[e] >= mesh_.element_ids[best]) continue;
        const double* node[4];
        element_nodes(e, node);
        if (elfes::TH4_exit_face(node, p, tolerance, 0) != elfes::th4_inside) continue;
        double l[4];
        elfes::th4_weights(node, p, l);
        bool across_boundary = false;
        for (unsigned f = 0; f < 4 && tolerance > 0; ++f)
          across_boundary |= l[f] < 0 && boundary_[4 * std::size_t(e) + f];
        if (across_boundary) continue;
        best = e;
        std::copy(l, l + 4, lambda);
      }
    if (best == no_item) return false;
    double sum = 0;
    for (unsigned k = 0; k < 4; ++k) sum += lambda[k] = std::fmin(std::fmax(lambda[k], 0.0), 1.0);
    for (unsigned k = 0; k < 4; ++k) lambda[k] /= sum;
    return true;
  }

  /// The boundary face nearest p (squared distance in the units of
  /// elfes::scaled_point over `bounds`, ties to the lowest global element ID, then face),
  /// as item 4 e + f, and the weights of its closest point (0 for the opposite node).
  bool nearest_face(const double* p, const double* bounds, double& best, unsigned& found, double* lambda) const {
    const elfes::scaled_point q(p, bounds);
    auto face_distance2 = [&](unsigned item, double* w) {
      const double* corner[3];
      face_corners(item, corner);
      double c[3][3];
      for (unsigned i = 0; i < 3; ++i)
        for (unsigned d = 0; d < 3; ++d) c[i][d] = corner[i][d] * q.scale - q.p[d];
      return elfes::closest_on_triangle(c[0], c[1], c[2], w);
    };
    best = INFINITY;
    found = no_item;
    auto distance2 = [&](unsigned item) {
      double w[3];
      const double d = face_distance2(item, w);
      if (d == best && found != no_item && before(item, found)) found = item;
      return d;
    };
    faces_.nearest(
        distance2, [&](const double* box) { return q.gap2(box); }, best, found);
    if (found == no_item) return false;
    double w[3];
    face_distance2(found, w);
    const unsigned face = found & 3u;
    lambda[face] = 0;
    for (unsigned i = 0; i < 3; ++i) lambda[elfes::th4_faces[face][i]] = w[i];
    return true;
  }

  const unsigned* column(unsigned e) const { return mesh_.connect.data() + std::size_t(e) * mesh_.connect.ld(); }
  std::uint64_t element_id(unsigned e) const { return mesh_.element_ids[e]; }

 private:
  bool before(unsigned a, unsigned b) const {
    const std::uint64_t ia = element_id(a >> 2), ib = element_id(b >> 2);
    return ia != ib ? ia < ib : (a & 3u) < (b & 3u);
  }
  void element_nodes(unsigned e, const double** node) const {
    const unsigned* c = column(e);
    for (unsigned k = 0; k < 4; ++k) node[k] = mesh_.coords.data() + std::size_t(c[k]) * mesh_.coords.ld();
  }
  void element_box(unsigned e, double* box) const {
    const double* node[4];
    element_nodes(e, node);
    box_of_points(node, 4, box);
  }
  void face_corners(unsigned item, const double** corner) const {
    const double* node[4];
    element_nodes(item >> 2, node);
    for (unsigned i = 0; i < 3; ++i) corner[i] = node[elfes::th4_faces[item & 3u][i]];
  }

  const part& mesh_;
  point_locator locator_;
  std::vector<std::size_t> around_first_;  // elements around node n: around_[around_first_[n] ...]
  std::vector<unsigned> around_;
  double element_box_[6];  // of the elements with a finite box, as the locator bounds them
  elfes::box_tree faces_;
  std::vector<unsigned char> boundary_;  // per 4 e + f: face f of e lies on the mesh's boundary
};

// A nodal field read with weights, as the one-machine interpolation sums it.
struct field_reader {
  const dense2D<double>& field;
  std::size_t width() const { return field.rows(); }
  bool read(const unsigned* column, const double* lambda, double* out) const {
    for (std::size_t c = 0; c < field.rows(); ++c) {
      double sum = 0;
      for (unsigned i = 0; i < 4; ++i)
        if (lambda[i] != 0) sum += lambda[i] * field(c, column[i]);
      out[c] = sum;
    }
    return true;
  }
};

// Metrics combined as the one-machine interpolation combines them, with its fallback to
// the valid metric of the node with the largest weight.
struct metric_reader {
  const dense2D<double>& metrics;  // 6 or 1 x #nodes
  std::size_t width() const { return metrics.rows(); }
  const double* at(unsigned n) const { return metrics.data() + std::size_t(n) * metrics.ld(); }
  bool is_valid(unsigned n) const {
    return metrics.rows() == 6 ? elfes::metric_is_valid(at(n)) : elfes::in_open_range(*at(n));
  }
  bool combine(const unsigned* column, const double* lambda, double* out) const {
    if (metrics.rows() == 1) {
      const double sizes[4] = {*at(column[0]), *at(column[1]), *at(column[2]), *at(column[3])};
      return elfes::combine_sizes(sizes, lambda, *out);
    }
    elfes::metric6 m[4], mixed;
    for (unsigned i = 0; i < 4; ++i)
      for (unsigned k = 0; k < 6; ++k) m[i][k] = at(column[i])[k];
    if (!elfes::combine_metrics(m, lambda, mixed) || !elfes::metric_is_valid(mixed.data())) return false;
    for (unsigned k = 0; k < 6; ++k) out[k] = mixed[k];
    return true;
  }
  bool read(const unsigned* column, const double* lambda, double* out) const {
    if (combine(column, lambda, out)) return true;
    unsigned best = 4;
    for (unsigned i = 0; i < 4; ++i)
      if (is_valid(column[i]) && (best == 4 || lambda[i] > lambda[best])) best = i;
    if (best == 4) return false;
    double one[4] = {0, 0, 0, 0};
    one[best] = 1;
    return combine(column, one, out);
  }
};

// Ranks whose box (12 values per rank, `at` selecting the element or the face box) is
// near a point, found in a tree of the boxes.
struct rank_boxes {
  std::vector<double> boxes;  // 12 per rank
  elfes::box_tree tree;
  int build() {
    const std::size_t nb_ranks = boxes.size() / 12;
    return tree.build(nb_ranks, [&](unsigned r, double* box) { std::copy(&boxes[12 * r], &boxes[12 * r] + 6, box); });
  }
  template <class Visit>
  void holding(const double* p, const Visit& visit) const {
    tree.visit_containing(p, rank_box_widening, [&](unsigned r) {
      const double* b = &boxes[12 * std::size_t(r)];
      bool holds = true;
      for (unsigned d = 0; d < 3 && holds; ++d) {
        const double slack =
            rank_box_widening * (b[d + 3] - b[d]) + 8 * DBL_EPSILON * std::fmax(std::fabs(b[d]), std::fabs(b[d + 3]));
        holds = p[d] >= b[d] - slack && p[d] <= b[d + 3] + slack;
      }
      if (holds) visit(int(r));
      return false;
    });
  }
};

// Points whose value is searched, in two rounds (holding element, then nearest boundary
// face), and the best reply of each so far.
template <class Reader>
class point_search {
 public:
  point_search(MPI_Comm comm, const part& source, const Reader& reader, const dense2D<double>& points)
      : comm_(comm), reader_(reader), points_(points), local_(source) {
    MPI_Comm_size(comm, &size_);
  }

  /// Collective. wanted[j]: search point j. On 0, found[j] says whether values holds a
  /// value for point j (width() values per point). 0 | -199 on any rank.
  int run(const std::vector<unsigned char>& wanted, std::vector<double>& values, std::vector<unsigned char>& found) {
    int status = local_.build(comm_);
    if (status != 0) return status;
    const std::size_t nb_points = points_.cols(), width = reader_.width();
    status = guarded([&] {
      values.assign(width * nb_points, NAN);
      found.assign(nb_points, 0);
      best_key_.assign(nb_points, INFINITY);
      best_id_.assign(nb_points, ~std::uint64_t(0));
      best_face_.assign(nb_points, 4);
      ranks_.boxes.assign(12 * std::size_t(size_), 0.0);
      return 0;
    });
    if ((status = agree(comm_, status)) != 0) return status;
    double mine[12];
    local_.boxes(mine);
    MPI_Allgather(mine, 12, MPI_DOUBLE, ranks_.boxes.data(), 12, MPI_DOUBLE, comm_);
    // The box of every element (the same bounds as the one-machine locator's, which
    // scale the distances to faces when they would overflow).
    for (unsigned d = 0; d < 3; ++d) bounds_[d] = INFINITY, bounds_[d + 3] = -INFINITY;
    for (int r = 0; r < size_; ++r)
      for (unsigned d = 0; d < 3; ++d) {
        bounds_[d] = std::fmin(bounds_[d], ranks_.boxes[12 * r + d]);
        bounds_[d + 3] = std::fmax(bounds_[d + 3], ranks_.boxes[12 * r + d + 3]);
      }
    if ((status = agree(comm_, guarded([&] { return ranks_.build(); }))) != 0) return status;

    // Round 1: the ranks whose elements' box holds the point.
    std::vector<std::vector<point3>> send;
    std::vector<std::vector<std::size_t>> sent;
    status = guarded([&] {
      send.assign(std::size_t(size_), {});
      sent.assign(std::size_t(size_), {});
      for (std::size_t j = 0; j < nb_points; ++j) {
        const double* p = point(j);
        if (!wanted[j] || !finite3(p)) continue;
        ranks_.holding(p, [&](int r) {
          send[r].push_back({p[0], p[1], p[2]});
          sent[r].push_back(j);
        });
      }
      return 0;
    });
    if ((status = agree(comm_, status)) != 0) return status;
    if ((status = round(send, sent, false, values, found)) != 0) return status;

    // Round 2: points that no element holds go to every rank whose boundary faces'
    // box is no farther than the farthest corner of the nearest such box.
    status = guarded([&] {
      for (int r = 0; r < size_; ++r) send[r].clear(), sent[r].clear();
      for (std::size_t j = 0; j < nb_points; ++j) {
        const double* p = point(j);
        if (!wanted[j] || !finite3(p) || best_key_[j] < 2) continue;
        const elfes::scaled_point q(p, bounds_);
        double reach = INFINITY;
        for (int r = 0; r < size_; ++r) {
          const double* b = &ranks_.boxes[12 * std::size_t(r) + 6];
          if (!(b[0] <= b[3])) continue;
          double far2 = 0;
          for (unsigned d = 0; d < 3; ++d) {
            const double g = std::fmax(std::fabs(b[d] * q.scale - q.p[d]), std::fabs(b[d + 3] * q.scale - q.p[d]));
            far2 += g * g;
          }
          reach = std::fmin(reach, far2);
        }
        for (int r = 0; r < size_; ++r) {
          const double* b = &ranks_.boxes[12 * std::size_t(r) + 6];
          if (b[0] <= b[3] && q.gap2(b) <= reach * (1 + 1e-9)) {
            send[r].push_back({p[0], p[1], p[2]});
            sent[r].push_back(j);
          }
        }
      }
      return 0;
    });
    if ((status = agree(comm_, status)) != 0) return status;
    return round(send, sent, true, values, found);
  }

 private:
  const double* point(std::size_t j) const { return points_.data() + j * points_.ld(); }

  // Sends the points, answers the others' (in the elements, or at the nearest boundary
  // face), and keeps each point's best reply.
  int round(const std::vector<std::vector<point3>>& send, const std::vector<std::vector<std::size_t>>& sent,
            bool nearest, std::vector<double>& values, std::vector<unsigned char>& found) {
    const std::size_t width = reader_.width(), record = reply_header + width;
    detail::received_records<point3> asked;
    int status = detail::exchange_records(comm_, send, asked);
    if (status != 0) return status;
    std::vector<std::vector<double>> replies;
    status = guarded([&] {
      replies.assign(std::size_t(size_), {});
      for (int r = 0; r < size_; ++r) {
        replies[r].resize(asked.count(r) * record);
        for (std::size_t i = 0; i < asked.count(r); ++i)
          answer(asked.from(r)[i].data(), nearest, &replies[r][i * record]);
      }
      return 0;
    });
    if ((status = agree(comm_, status)) != 0) return status;
    detail::received_records<double> got;
    if ((status = detail::exchange_records(comm_, replies, got)) != 0) return status;
    for (int r = 0; r < size_; ++r)
      for (std::size_t i = 0; i < sent[r].size(); ++i) {
        const double* reply = got.from(r) + i * record;
        const std::size_t j = sent[r][i];
        const double key = reply[0];
        const std::uint64_t id = double_as_id(reply[1]);
        const unsigned face = unsigned(reply[2]);
        if (!(key < best_key_[j] ||
              (key == best_key_[j] && (id < best_id_[j] || (id == best_id_[j] && face < best_face_[j])))))
          continue;
        if (!nearest && key >= 2) continue;
        best_key_[j] = key;  // round 2 only sees points that round 1 left without a key
        best_id_[j] = id;
        best_face_[j] = face;
        found[j] = reply[3] != 0;
        std::copy(reply + reply_header, reply + record, values.begin() + std::ptrdiff_t(j * width));
      }
    return 0;
  }

  void answer(const double* p, bool nearest, double* reply) const {
    unsigned e = no_item;
    double lambda[4] = {0, 0, 0, 0}, key = 2;
    unsigned face = 4;
    if (!nearest) {
      if (local_.holding_element(p, 0.0, e, lambda))
        key = 0;
      else if (local_.holding_element(p, inner_face_tolerance, e, lambda))
        key = 1;
    } else {
      unsigned item;
      if (local_.nearest_face(p, bounds_, key, item, lambda)) {
        e = item >> 2;
        face = item & 3u;
      } else {
        key = INFINITY;
      }
    }
    reply[0] = key;
    reply[1] = id_as_double(e == no_item ? ~std::uint64_t(0) : local_.element_id(e));
    reply[2] = face;
    reply[3] = e != no_item && reader_.read(local_.column(e), lambda, reply + reply_header) ? 1 : 0;
    if (reply[3] == 0) std::fill(reply + reply_header, reply + reply_header + reader_.width(), NAN);
  }

  MPI_Comm comm_;
  int size_ = 1;
  const Reader& reader_;
  const dense2D<double>& points_;
  local_source local_;
  rank_boxes ranks_;
  double bounds_[6];
  std::vector<double> best_key_;
  std::vector<std::uint64_t> best_id_;
  std::vector<unsigned> best_face_;
};

// The checks of the source part and the points shared by both forms (before agreeing).
int check_source(const part& source) {
  if (source.coords.rows() != 3) return -2;
  const std::size_t nb_nodes = source.coords.cols();
  if (source.connect.rows() != 4 || nb_nodes > std::size_t(~0U) ||
      !tessel::check_IDs(source.connect, TH4, unsigned(nb_nodes)))
    return -2;
  if (source.node_ids.size() != nb_nodes || source.element_ids.size() != source.connect.cols()) return -2;
  return 0;
}

// The same row count on every rank: 0, or `code` everywhere.
int same_rows_everywhere(MPI_Comm comm, std::size_t rows, int code) {
  long long range[2] = {(long long)rows, -(long long)rows};
  MPI_Allreduce(MPI_IN_PLACE, range, 2, MPI_LONG_LONG, MPI_MIN, comm);
  return range[0] == -range[1] ? 0 : code;
}

}  // namespace

int interpolate(MPI_Comm comm, const part& source, const dense2D<double>& field, const dense2D<double>& points,
                dense2D<double>& values) {
  if (comm == MPI_COMM_NULL) return -1;
  int status = check_source(source);
  if (status == 0 && field.cols() != source.coords.cols()) status = -3;
  if (status == 0 && points.rows() != 3) status = -4;
  const detail::private_comm own_comm(comm);
  const MPI_Comm own = own_comm.get();
  if ((status = agree(own, status)) != 0) return status;
  if ((status = same_rows_everywhere(own, field.rows(), -3)) != 0) return status;

  dense2D<double> result;
  std::vector<double> read;
  std::vector<unsigned char> wanted, found;
  status = guarded([&] {
    if (!result.resize(field.rows(), points.cols())) return out_of_memory;
    wanted.assign(points.cols(), 1);
    return 0;
  });
  if ((status = agree(own, status)) != 0) return status;
  const field_reader reader{field};
  point_search<field_reader> search(own, source, reader, points);
  if ((status = search.run(wanted, read, found)) != 0) return status;
  for (std::size_t j = 0; j < points.cols(); ++j)
    for (std::size_t c = 0; c < field.rows(); ++c) result(c, j) = read[j * field.rows() + c];
  values = result;
  return 0;
}

int interpolate_metrics(MPI_Comm comm, const part& source, const dense2D<double>& metrics,
                        const dense2D<double>& points, dense2D<double>& values, bool keep_valid) {
  if (comm == MPI_COMM_NULL) return -1;
  int status = check_source(source);
  if (status == 0 && (metrics.cols() != source.coords.cols() || (metrics.rows() != 6 && metrics.rows() != 1)))
    status = -3;
  if (status == 0 && points.rows() != 3) status = -4;
  if (status == 0 && (values.rows() != metrics.rows() || values.cols() != points.cols())) status = -5;
  const detail::private_comm own_comm(comm);
  const MPI_Comm own = own_comm.get();
  if ((status = agree(own, status)) != 0) return status;
  if ((status = same_rows_everywhere(own, metrics.rows(), -3)) != 0) return status;

  const metric_reader reader{metrics};
  const metric_reader current{values};
  std::vector<double> read;
  std::vector<unsigned char> wanted, found;
  status = guarded([&] {
    wanted.assign(points.cols(), 1);
    if (keep_valid)
      for (std::size_t j = 0; j < points.cols(); ++j) wanted[j] = !current.is_valid(unsigned(j));
    return 0;
  });
  if ((status = agree(own, status)) != 0) return status;
  point_search<metric_reader> search(own, source, reader, points);
  if ((status = search.run(wanted, read, found)) != 0) return status;
  const std::size_t width = metrics.rows();
  for (std::size_t j = 0; j < points.cols(); ++j)
    if (found[j])
      for (std::size_t c = 0; c < width; ++c) values(c, j) = read[j * width + c];
  return 0;
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
