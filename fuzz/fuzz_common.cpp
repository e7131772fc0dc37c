// Fuzz target: flips, the ID checks, the base mesh library and the hash container.
#include "fuzz_input.h"
#include "fuzz_structured.h"
#include "order/hash_tables.h"
#include "zel/tessel2d.h"
#include "zel/tessel3d.h"

namespace {

using tessel3d_fuzz::require;
using tessel3d_test::box_kind;

// Flipping every element of a valid box negates its volume (faces plane), and flipping
// again restores the connectivity.
void structured_common(tessel3d_fuzz::byte_reader& in) {
  const auto s = tessel3d_fuzz::read_structured(in, {box_kind::TH4, box_kind::W6, box_kind::H8});
  static const zel::element_type types[] = {zel::TH4, zel::PY5, zel::W6, zel::H8};
  const zel::element_type type = types[static_cast<int>(s.kind)];
  zel::dense2D<unsigned> flipped;
  require(flipped.copy(s.mesh.connect));
  const double v = tessel3d_fuzz::total_volume(s.mesh.coords, flipped);
  require(zel::tessel3d::flip(flipped, type) == 0);
  // A warped face is cut along other diagonals once flipped: only plane faces give -v.
  if (tessel3d_fuzz::box_volume_known(s))
    tessel3d_fuzz::require_close(tessel3d_fuzz::total_volume(s.mesh.coords, flipped), -v);
  require(zel::tessel3d::flip(flipped, type) == 0);
  for (std::size_t j = 0; j < flipped.cols(); ++j)
    for (std::size_t r = 0; r < flipped.rows(); ++r) require(flipped(r, j) == s.mesh.connect(r, j));
}

}  // namespace

TESSEL3D_FUZZ_TARGET(common) {
  if (tessel3d_fuzz::is_structured(data, size)) {
    tessel3d_fuzz::byte_reader structured(data + 1, size - 1);
    structured_common(structured);
    return 0;
  }
  tessel3d_fuzz::byte_reader in(data, size);
  const unsigned nb_nodes = in.below(40);
  switch (in.below(8)) {
    case 0: {
      auto connect = in.connectivity({4, 5, 6, 8, 10, 14, 18, 27}, nb_nodes, 20);
      const zel::element_type type = in.type();
      const int status = zel::tessel3d::flip(connect, type);
      if (status != 0 && status != -2) __builtin_trap();
      break;
    }
    case 1: {
      auto connect = in.connectivity({4, 6, 8}, nb_nodes, 20);
      const int which = in.below(3);
      const int status = which == 0   ? zel::tessel3d::flip_TH4(connect)
                         : which == 1 ? zel::tessel3d::flip_W6(connect)
                                      : zel::tessel3d::flip_H8(connect);
      if (status != 0 && status != -1) __builtin_trap();
      break;
    }
    case 2: {
      auto connect = in.connectivity({3, 4, 5, 6, 8, 9, 27}, nb_nodes, 20);
      zel::tessel::check_IDs(connect, in.type(), nb_nodes);
      zel::tessel::check_IDs(connect, nb_nodes);
      zel::tessel::check_IDs(in.ids(nb_nodes, 10), nb_nodes);
      break;
    }
    case 3: {
      auto connect = in.connectivity({4, 5, 6, 8}, nb_nodes, 30);
      zel::dense2D<unsigned> neighbors;
      zel::dense1D<unsigned, 8> node_element;
      zel::tessel::get_neighbors(connect, in.type(), neighbors);
      zel::tessel::get_node_element(connect, nb_nodes, node_element);
      break;
    }
    case 4: {
      auto coords = in.coords(40);
      zel::tessel::node_detector detector(coords);
      for (int k = 0; k < 4; ++k) {
        const auto p = in.point();
        const unsigned close = detector.find_close(p), closest = detector.find_closest(p);
        if ((close != ~0U && close >= coords.cols()) || (closest != ~0U && closest >= coords.cols())) __builtin_trap();
      }
      break;
    }
    case 5: {
      auto coords = in.coords(40);
      auto first = in.connectivity({6, 8}, static_cast<unsigned>(coords.cols()), 10);
      auto second = in.connectivity({3, 4}, static_cast<unsigned>(coords.cols()), 10);
      zel::dense2D<unsigned> all[2] = {first, second};
      zel::dense1D<unsigned, 8> work;
      zel::tessel::simplify(coords, all, all + 2, work, in.below(static_cast<unsigned>(coords.cols()) + 2));
      break;
    }
    case 6: {
      auto coords = in.coords(30);
      auto surface = in.connectivity({3, 4}, static_cast<unsigned>(coords.cols()), 20);
      zel::dense2D<double> normals;
      zel::tessel2d::normals(coords, surface, in.real(), in.flag(), normals);
      break;
    }
    case 7: {
      // The hash container: every inserted face is found again at its slot.
      elfes::hash_table<elfes::face_mix> faces;
      if (!faces.reset(23, 23, 1.0)) break;
      while (!in.exhausted()) {
        elfes::face_mix f{{in.below(8), in.below(8), in.below(8), in.flag() ? ~0U : in.below(8)}};
        const std::size_t pos = faces.insert_growing(elfes::hash_key(f), f);
        if (pos == faces.npos) break;
        if (faces.find(elfes::hash_key(f), f) != pos) __builtin_trap();
      }
      std::size_t live = 0;
      for (std::size_t pos = faces.begin(); pos < faces.end(); ++pos) live += faces.occupied(pos);
      if (live != faces.size()) __builtin_trap();
      break;
    }
  }
  return 0;
}
