// Fuzz target: conversion into high order and back, splitting into hexahedra.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "zel/tessel3d.h"

namespace t3 = zel::tessel3d;

TESSEL3D_FUZZ_TARGET(order) {
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
