// Fuzz target: splitting solids along listed quadrangles. The list mixes arbitrary
// quadrangles with faces of the mesh's own solids (either way round), so that solids are
// actually split, judged and left whole.
#include "common/element_tables.h"
#include "fuzz_input.h"
#include "zel/tessel3d.h"

TESSEL3D_FUZZ_TARGET(split) {
  tessel3d_fuzz::byte_reader in(data, size);
  auto coords = in.coords(24);
  const unsigned nb_nodes = static_cast<unsigned>(coords.cols());
  const auto connect = in.connectivity({5, 6, 8}, nb_nodes, 12);
  const std::size_t quad_rows = in.below(16) == 0 ? in.below(6) : 4;
  auto quads = in.matrix<unsigned>(quad_rows, in.below(10), [&](std::size_t) { return in.id(nb_nodes); });
  const std::size_t R = connect.rows();
  const bool readable = connect.cols() != 0 && (R == 5 || R == 6 || R == 8);
  for (std::size_t j = 0; j < quads.cols() && quads.rows() == 4 && readable; ++j) {
    if (in.below(4) == 0) continue;  // keep the arbitrary quadrangle
    const std::size_t e = in.below(static_cast<unsigned>(connect.cols() < 256 ? connect.cols() : 256));
    const unsigned* column = &connect(0, e);
    const unsigned kind = R == 5 ? elfes::kind_PY5 : R == 6 ? elfes::kind_W6 : elfes::kind_H8;
    const elfes::solid_descriptor& d = elfes::solid_table[kind];
    const unsigned f = in.below(d.nb_faces);
    const bool reversed = in.flag();
    for (unsigned i = 0; i < 4; ++i) quads(i, j) = column[d.faces[f][reversed ? (4 - i) % 4 : i] % R];
  }
  const double min_quality = in.flag() ? in.real() : (in.byte() - 128) / 128.0;

  const std::size_t entry_nodes = coords.cols();
  zel::dense2D<unsigned> out(2, 2, 9u);
  zel::dense1D<unsigned, 8> failed(3, 9u);
  const int status = zel::tessel3d::split_solid_Q4(coords, connect, quads, min_quality, out, failed);
  if (status < 0 && (coords.cols() != entry_nodes || !out.empty() || !failed.empty())) __builtin_trap();
  if (status == 0) {
    if (out.rows() != 8 || out.cols() < connect.cols() || failed.size() > connect.cols()) __builtin_trap();
    if (!zel::tessel::check_IDs(out, zel::SOLID_MIX8, static_cast<unsigned>(coords.cols()))) __builtin_trap();
  }

  // The conforming form on the same input (coords as on entry): the same status, and its
  // list ascending, with a known reason for each solid.
  coords.resize(coords.rows(), entry_nodes);
  zel::dense2D<unsigned> listed(1, 1, 9u);
  if (zel::tessel3d::split_solid_Q4(coords, connect, quads, min_quality, out, listed) != status) __builtin_trap();
  if (status < 0 && (coords.cols() != entry_nodes || !out.empty() || !listed.empty())) __builtin_trap();
  if (status == 0) {
    if (listed.rows() != 2 || listed.cols() > connect.cols()) __builtin_trap();
    for (std::size_t k = 0; k < listed.cols(); ++k)
      if ((k && listed(0, k - 1) >= listed(0, k)) || listed(1, k) < 1 || listed(1, k) > 3) __builtin_trap();
    if (!zel::tessel::check_IDs(out, zel::SOLID_MIX8, static_cast<unsigned>(coords.cols()))) __builtin_trap();
  }
  return 0;
}
