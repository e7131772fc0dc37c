// Fuzz target: conversion into high order and back, splitting into hexahedra.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_structured.h"
#include "zel/tessel3d.h"

namespace t3 = zel::tessel3d;

namespace {

using tessel3d_fuzz::require;
using tessel3d_test::box_kind;

// A valid mesh of thousands of elements: the conversion keeps the corners, places new
// nodes inside the box, gives the natural result renumbered whatever the numbering, and
// the split into hexahedra keeps the volume.
void structured_order(tessel3d_fuzz::byte_reader& in) {
  const auto s = tessel3d_fuzz::read_structured(in, {box_kind::TH4, box_kind::PY5, box_kind::W6, box_kind::H8}, 12);
  static const unsigned q_choices[] = {0, 1, 4}, t_choices[] = {0, 1, 3}, h_choices[] = {0, 1, 8};
  const unsigned e = in.below(3), q = q_choices[in.below(3)], t = t_choices[in.below(3)], h = h_choices[in.below(3)];
  const unsigned w = in.below(2), p = in.below(3), n = in.below(2);
  zel::dense2D<double> coords_n, coords;
  zel::dense2D<unsigned> high_n, high;
  const zel::dense2D<unsigned> linear_n = tessel3d_fuzz::solid_layout(s, s.natural.connect);
  const zel::dense2D<unsigned> linear = tessel3d_fuzz::solid_layout(s, s.mesh.connect);
  require(coords_n.copy(s.natural.coords) && coords.copy(s.mesh.coords));
  require(t3::convert_into_high_order(coords_n, linear_n, e, q, t, h, w, p, n, high_n, {}, {}) == 0);
  require(t3::convert_into_high_order(coords, linear, e, q, t, h, w, p, n, high, {}, {}) == 0);
  tessel3d_fuzz::require_renumbered(s, high_n, coords_n, high, coords);
  const unsigned vertices = tessel3d_test::box_rows(s.kind);
  for (std::size_t j = 0; j < high.cols(); ++j)
    for (unsigned r = 0; r < vertices && high.rows() > 0; ++r) require(high(r, j) == linear(r, j));
  for (std::size_t k = s.mesh.coords.cols(); k < coords.cols(); ++k)
    for (int d = 0; d < 3; ++d) require(coords(d, k) >= -1e-12 && coords(d, k) <= 1 + 1e-12);

  if (s.kind == box_kind::PY5) return;
  zel::dense2D<unsigned> quadratic;
  require(quadratic.copy(s.mesh.connect) && coords.copy(s.mesh.coords));
  require(t3::convert_into_quadratic(coords, quadratic) == 0 && t3::convert_into_linear(quadratic) == 0);
  for (std::size_t j = 0; j < linear.cols(); ++j)
    for (unsigned r = 0; r < vertices; ++r) require(quadratic(r, j) == linear(r, j));
  zel::dense2D<unsigned> hexahedra;
  require(coords.copy(s.mesh.coords));
  require(t3::split_into_H8(coords, linear, hexahedra, {}, {}) == 0);
  require(hexahedra.cols() == linear.cols() * (s.kind == box_kind::TH4 ? 4 : s.kind == box_kind::W6 ? 6 : 8));
  if (!s.jittered) tessel3d_fuzz::require_close(tessel3d_fuzz::total_volume(coords, hexahedra), 1.0);
}

}  // namespace

TESSEL3D_FUZZ_TARGET(order) {
  if (tessel3d_fuzz::is_structured(data, size)) {
    tessel3d_fuzz::byte_reader structured(data + 1, size - 1);
    structured_order(structured);
    return 0;
  }
  tessel3d_fuzz::byte_reader in(data, size);
  auto coords = in.coords(24);
  const unsigned nb_nodes = static_cast<unsigned>(coords.cols());
  auto connect = in.connectivity({4, 6, 8}, nb_nodes, 10);
  const std::size_t entry_nodes = coords.cols();
  switch (in.below(5)) {
    case 0: {
      unsigned counts[7];
      for (unsigned& c : counts) c = in.count(3);
      auto faces = in.connectivity({3, 4, 6, 7, 8, 9}, nb_nodes, 4);
      auto edges = in.connectivity({3, 4, 5}, nb_nodes, 4);
      zel::dense2D<double> entry_coords;
      if (!entry_coords.copy(coords)) break;
      zel::dense2D<unsigned> high(2, 2, 9u);
      const int status = t3::convert_into_high_order(coords, connect, counts[0], counts[1], counts[2], counts[3],
                                                     counts[4], counts[5], counts[6], high, faces, edges);
      if (status < 0 && (coords.cols() != entry_nodes || !high.empty())) __builtin_trap();
      // The conforming form: the same status (but for h = 64, 125, ... which only it
      // accepts), coordinates and corners; each column the same nodes, only face blocks
      // reordered, every entry a node or absent.
      zel::dense2D<unsigned> conforming;
      const int conforming_status =
          t3::convert_into_high_order(entry_coords, connect, counts[0], counts[1], counts[2], counts[3], counts[4],
                                      counts[5], counts[6], conforming, faces, edges, t3::high_order_options());
      const std::uint64_t root = static_cast<std::uint64_t>(std::llround(std::cbrt(double(counts[3]))));
      if (status == -6 && root * root * root == counts[3]) break;
      if (conforming_status != status) __builtin_trap();
      if (status != 0 || high.empty()) break;
      if (entry_coords.cols() != coords.cols() || conforming.rows() != high.rows() || conforming.cols() != high.cols())
        __builtin_trap();
      for (std::size_t j = 0; j < coords.cols(); ++j)
        for (std::size_t i = 0; i < 3; ++i)
          if (std::memcmp(&coords(i, j), &entry_coords(i, j), sizeof(double)) != 0) __builtin_trap();
      std::vector<unsigned> a(high.rows()), b(high.rows());
      for (std::size_t j = 0; j < high.cols(); ++j) {
        for (std::size_t i = 0; i < high.rows(); ++i) {
          a[i] = high(i, j), b[i] = conforming(i, j);
          if (b[i] != ~0U && b[i] >= coords.cols()) __builtin_trap();
        }
        if (!std::equal(a.begin(), a.begin() + 4, b.begin())) __builtin_trap();
        std::sort(a.begin(), a.end()), std::sort(b.begin(), b.end());
        if (a != b) __builtin_trap();
      }
      break;
    }
    case 1: {
      auto faces = in.connectivity({8, 7}, nb_nodes, 3);
      auto edges = in.connectivity({3}, nb_nodes, 3);
      const int status = in.flag() ? t3::convert_into_quadratic(coords, connect)
                                   : t3::convert_into_quadratic(coords, connect, faces, edges);
      if (status < 0 && coords.cols() != entry_nodes) __builtin_trap();
      break;
    }
    case 2: {
      auto quadratic = in.connectivity({10, 13, 14, 15, 18, 20, 27, 11}, nb_nodes, 8);
      t3::convert_into_linear(quadratic);
      break;
    }
    default: {
      auto faces = in.connectivity({9, 7}, nb_nodes, 3);
      auto edges = in.connectivity({3}, nb_nodes, 3);
      auto hexahedra = in.connectivity({8, 0, 6}, nb_nodes, 2);
      const std::size_t entry_hexahedra = hexahedra.cols();
      const int status = t3::split_into_H8(coords, connect, hexahedra, faces, edges);
      if (status < 0 && (coords.cols() != entry_nodes || hexahedra.cols() != entry_hexahedra)) __builtin_trap();
      break;
    }
  }
  return 0;
}
