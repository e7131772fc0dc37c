// read_pvtu: a partitioned VTK unstructured grid read by every rank at once.
#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "broadcast_text.h"
#include "mpi/node_sharing.h"
#include "vtk_cells.h"
#include "vtu_piece.h"
#include "xml_scan.h"
#include "zel/tessel3d_mpi.h"

namespace zel {
namespace tessel3d {
namespace mpi {

namespace {

using detail::array_layouts;
using detail::xml_document;

// What rank 0 reads in the index file and every rank needs: the pieces' paths and the
// arrays they hold.
struct file_index {
  std::vector<std::string> pieces;
  array_layouts points, cells;
};

std::string directory_of(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

bool read_index(const std::string& path, file_index& index) {
  std::vector<char> text;
  xml_document doc;
  if (!detail::load_file(path, text) || !detail::scan_xml(text.data(), text.size() - 1, doc)) return false;
  const detail::xml_element& root = doc.elements[0];
  const detail::xml_attribute* kind = detail::find_attribute(root, "type");
  if (root.name != "VTKFile" || !kind) return false;
  const bool single = kind->value == "UnstructuredGrid";
  if (!single && kind->value != "PUnstructuredGrid") return false;
  const std::vector<std::size_t> grids =
      detail::xml_children(doc, 0, single ? "UnstructuredGrid" : "PUnstructuredGrid");
  if (grids.size() != 1) return false;
  // A single .vtu declares its arrays in its first piece.
  std::size_t holder = grids[0];
  if (single) {
    const std::vector<std::size_t> pieces = detail::xml_children(doc, grids[0], "Piece");
    holder = pieces.empty() ? xml_document::no_parent : pieces[0];
    index.pieces.push_back(path);
  }
  const auto data = [&](const char* name) {
    if (holder == xml_document::no_parent) return xml_document::no_parent;
    const std::vector<std::size_t> found = detail::xml_children(doc, holder, name);
    return found.size() == 1 ? found[0] : xml_document::no_parent;
  };
  const char* array_element = single ? "DataArray" : "PDataArray";
  if (!detail::read_layouts(doc, data(single ? "PointData" : "PPointData"), array_element, detail::node_ids_name,
                            index.points) ||
      !detail::read_layouts(doc, data(single ? "CellData" : "PCellData"), array_element, detail::element_ids_name,
                            index.cells))
    return false;
  if (!single) {
    const std::string directory = directory_of(path);
    for (std::size_t piece : detail::xml_children(doc, grids[0], "Piece")) {
      const detail::xml_attribute* source = detail::find_attribute(doc.elements[piece], "Source");
      if (!source || source->value.empty()) return false;
      std::string name = detail::xml_unescape(source->value);
      index.pieces.push_back(name[0] == '/' ? name : directory + name);
    }
  }
  return true;
}

// The index as text, for the broadcast: each string preceded by its length.
void put_text(std::string& out, const std::string& text) {
  const unsigned long long size = text.size();
  out.append(reinterpret_cast<const char*>(&size), sizeof size);
  out += text;
}

void put_layouts(std::string& out, const array_layouts& layouts) {
  put_text(out, layouts.ids);
  put_text(out, std::to_string(layouts.arrays.size()));
  for (const detail::array_layout& layout : layouts.arrays) {
    put_text(out, layout.name);
    put_text(out, std::to_string(layout.components) + (layout.integer ? "i" : "r"));
  }
}

std::string serialise(const file_index& index) {
  std::string out;
  put_layouts(out, index.points);
  put_layouts(out, index.cells);
  for (const std::string& piece : index.pieces) put_text(out, piece);
  return out;
}

struct text_reader {
  const std::string& in;
  std::size_t at = 0;
  std::string next() {
    unsigned long long size = 0;
    std::memcpy(&size, in.data() + at, sizeof size);
    at += sizeof size;
    std::string text = in.substr(at, static_cast<std::size_t>(size));
    at += static_cast<std::size_t>(size);
    return text;
  }
  bool done() const { return at >= in.size(); }
};

void get_layouts(text_reader& in, array_layouts& layouts) {
  layouts.ids = in.next();
  const std::size_t count = std::stoull(in.next());
  for (std::size_t a = 0; a < count; ++a) {
    detail::array_layout layout;
    layout.name = in.next();
    const std::string kind = in.next();
    layout.integer = kind.back() == 'i';
    layout.components = std::stoull(kind);
    layouts.arrays.push_back(std::move(layout));
  }
}

void deserialise(const std::string& text, file_index& index) {
  text_reader in{text};
  get_layouts(in, index.points);
  get_layouts(in, index.cells);
  while (!in.done()) index.pieces.push_back(in.next());
}

// The layout that holds every cell of the types in `mask` (bit t for type t), and its rows.
element_type layout_of(std::uint32_t mask, std::size_t& rows) {
  rows = 0;
  for (unsigned t = 0; t < 25; ++t)
    if (mask >> t & 1U) rows = std::max<std::size_t>(rows, tessel::element_records[t].rows);
  if (mask == 0) return NONE;
  if ((mask & (mask - 1)) == 0) {
    for (unsigned t = 0; t < 25; ++t)
      if (mask == 1U << t) return static_cast<element_type>(t);
  }
  for (const detail::mixed_layout& layout : detail::mixed_layouts) {
    std::uint32_t kinds = 0;
    for (element_type kind : layout.kinds)
      if (kind != NONE) kinds |= 1U << kind;
    if ((mask & ~kinds) == 0) {
      rows = layout.rows;
      return layout.layout;
    }
  }
  return NONE;
}

// This rank's nodes: the points of its pieces with one local node per global ID, in the
// order the IDs are first met. node_of[i] is the local node of point i. False when two
// points with one ID lie apart.
bool merge_points(const detail::piece_content& content, std::vector<std::uint64_t>& ids, std::vector<unsigned>& node_of,
                  std::vector<std::size_t>& first_point) {
  const std::size_t n = content.points;
  std::vector<std::size_t> order(n);
  for (std::size_t i = 0; i < n; ++i) order[i] = i;
  std::sort(order.begin(), order.end(),
            [&](std::size_t a, std::size_t b) { return ids[a] != ids[b] ? ids[a] < ids[b] : a < b; });
  // representative[i]: the first point with the ID of point i
  std::vector<std::size_t> representative(n);
  for (std::size_t k = 0; k < n; ++k) {
    const std::size_t i = order[k];
    const bool first = k == 0 || ids[order[k - 1]] != ids[i];
    representative[i] = first ? i : representative[order[k - 1]];
    if (!first && std::memcmp(&content.coords[3 * i], &content.coords[3 * representative[i]], 3 * sizeof(double)))
      return false;
  }
  node_of.assign(n, 0);
  first_point.clear();
  for (std::size_t i = 0; i < n; ++i) {
    if (representative[i] == i) {
      node_of[i] = static_cast<unsigned>(first_point.size());
      first_point.push_back(i);
    } else {
      node_of[i] = node_of[representative[i]];
    }
  }
  return true;
}

// The values of the points in first_point (or of every cell when first_point is null).
bool take_values(const detail::array_layout& layout, const detail::array_values& values, std::size_t count,
                 const std::vector<std::size_t>* first_point, data_array& out) {
  out.name = layout.name;
  const std::size_t c = static_cast<std::size_t>(layout.components);
  const auto fill = [&](auto& matrix, const auto& source) {
    if (!matrix.resize(c, count)) return false;
    for (std::size_t j = 0; j < count; ++j) {
      const std::size_t from = first_point ? (*first_point)[j] : j;
      std::copy(source.begin() + from * c, source.begin() + (from + 1) * c, matrix.data() + j * matrix.ld());
    }
    return true;
  };
  return layout.integer ? fill(out.integers, values.integers) : fill(out.reals, values.reals);
}

struct read_result {
  part p;
  element_type type = NONE;
  dense1D<unsigned char> cell_types;
  std::vector<data_array> point_data, cell_data;
};

// Builds this rank's outputs from its pieces' content; false when memory runs out.
bool build(const file_index& index, detail::piece_content& content, const std::vector<std::uint64_t>& node_ids,
           const std::vector<unsigned>& node_of, const std::vector<std::size_t>& first_point, element_type type,
           std::size_t rows, read_result& out) {
  const std::size_t nb_nodes = first_point.size(), nb_cells = content.cells;
  part& p = out.p;
  if (!p.coords.resize(3, nb_nodes) || !p.node_ids.resize(nb_nodes) ||
      !p.connect.resize(rows, nb_cells, tessel::ABSENT) || !p.element_ids.resize(nb_cells) ||
      !out.cell_types.resize(nb_cells))
    return false;
  for (std::size_t j = 0; j < nb_nodes; ++j) {
    std::copy_n(&content.coords[3 * first_point[j]], 3, p.coords.data() + j * p.coords.ld());
    p.node_ids[j] = node_ids[first_point[j]];
  }
  for (std::size_t c = 0; c < nb_cells; ++c) {
    unsigned* column = p.connect.data() + c * p.connect.ld();
    for (std::size_t k = content.starts[c]; k < content.starts[c + 1]; ++k)
      column[k - content.starts[c]] = node_of[content.nodes[k]];
    p.element_ids[c] = content.element_ids[c];
    out.cell_types[c] = content.types[c];
  }
  out.type = type;
  out.point_data.resize(index.points.arrays.size());
  out.cell_data.resize(index.cells.arrays.size());
  for (std::size_t a = 0; a < out.point_data.size(); ++a)
    if (!take_values(index.points.arrays[a], content.point_arrays[a], nb_nodes, &first_point, out.point_data[a]))
      return false;
  for (std::size_t a = 0; a < out.cell_data.size(); ++a)
    if (!take_values(index.cells.arrays[a], content.cell_arrays[a], nb_cells, nullptr, out.cell_data[a])) return false;
  return true;
}

}  // namespace

int read_pvtu(MPI_Comm comm, const char* path, part& p, element_type& type, dense1D<unsigned char>& cell_types,
              std::vector<data_array>& point_data, std::vector<data_array>& cell_data) {
  if (comm == MPI_COMM_NULL) return -1;
  detail::private_comm own(comm);
  int status = detail::agree(own.get(), path ? 0 : -2);
  if (status != 0) return status;
  const int rank = own.rank(), size = own.size();

  // Rank 0 reads the index and sends it to every rank.
  file_index index;
  std::string description;
  if (rank == 0) {
    try {
      if (!read_index(path, index))
        status = -2;
      else
        description = serialise(index);
    } catch (const std::bad_alloc&) {
      status = detail::status_out_of_memory;
    }
  }
  status = detail::agree(own.get(), status);
  if (status != 0) return status;
  if (!detail::broadcast_text(own.get(), description)) status = detail::status_out_of_memory;
  detail::piece_content content;
  std::vector<std::uint64_t> node_ids;
  std::vector<unsigned> node_of;
  std::vector<std::size_t> first_point;
  try {
    if (status == 0) {
      if (rank != 0) deserialise(description, index);
      detail::start_content(index.points, index.cells, content);
      const std::size_t nb_pieces = index.pieces.size();
      const std::size_t first = nb_pieces * std::size_t(rank) / std::size_t(size);
      const std::size_t last = nb_pieces * (std::size_t(rank) + 1) / std::size_t(size);
      for (std::size_t k = first; k < last && status == 0; ++k)
        if (!detail::read_piece(index.pieces[k], index.points, index.cells, content)) status = -2;
    }
  } catch (const std::bad_alloc&) {
    status = detail::status_out_of_memory;
  }
  status = detail::agree(own.get(), status);
  if (status != 0) return status;

  // Without global IDs in the file, a point's or cell's ID is its rank in the file.
  unsigned long long counts[2] = {content.points, content.cells}, before[2] = {0, 0};
  MPI_Exscan(counts, before, 2, MPI_UNSIGNED_LONG_LONG, MPI_SUM, own.get());
  if (rank == 0) before[0] = before[1] = 0;  // MPI leaves rank 0's result undefined
  std::uint32_t mask = 0;
  for (std::uint8_t t : content.types) mask |= 1U << t;
  try {
    node_ids.swap(content.node_ids);
    if (index.points.ids.empty()) {
      node_ids.resize(content.points);
      for (std::size_t i = 0; i < content.points; ++i) node_ids[i] = before[0] + i;
    }
    if (index.cells.ids.empty()) {
      content.element_ids.resize(content.cells);
      for (std::size_t c = 0; c < content.cells; ++c) content.element_ids[c] = before[1] + c;
    }
    if (!merge_points(content, node_ids, node_of, first_point)) status = -2;
  } catch (const std::bad_alloc&) {
    status = detail::status_out_of_memory;
  }
  status = detail::agree(own.get(), status);
  if (status != 0) return status;

  std::uint32_t all_types = 0;
  MPI_Allreduce(&mask, &all_types, 1, MPI_UINT32_T, MPI_BOR, own.get());
  std::size_t rows = 0;
  const element_type layout = layout_of(all_types, rows);
  read_result result;
  try {
    if (!build(index, content, node_ids, node_of, first_point, layout, rows, result))
      status = detail::status_out_of_memory;
  } catch (const std::bad_alloc&) {
    status = detail::status_out_of_memory;
  }
  status = detail::agree(own.get(), status);
  if (status != 0) return status;
  p = result.p;
  type = result.type;
  cell_types = result.cell_types;
  point_data.swap(result.point_data);
  cell_data.swap(result.cell_data);
  return 0;
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
