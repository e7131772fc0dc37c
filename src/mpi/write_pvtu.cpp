// write_pvtu: a partitioned mesh as a .pvtu file and one .vtu piece per rank.
#include <algorithm>
#include <cstdio>
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

using detail::vtk_cell;

constexpr std::size_t max_components = 1U << 20;

bool part_shapes_valid(const part& p) {
  const bool coords_ok = p.coords.rows() == 3 || (p.coords.rows() == 0 && p.coords.cols() == 0);
  return coords_ok && p.node_ids.size() == p.coords.cols() && p.element_ids.size() == p.connect.cols();
}

// The type of each column from one type or mixed layout; false when a column holds no
// type VTK has.
bool types_of_columns(const part& p, element_type type, std::vector<unsigned char>& types) {
  const std::size_t rows = p.connect.rows(), cols = p.connect.cols();
  types.assign(cols, static_cast<unsigned char>(type));
  if (const vtk_cell* cell = detail::vtk_cell_of_type(type)) return cols == 0 || rows == cell->nodes;
  const detail::mixed_layout* layout = detail::mixed_layout_of(type);
  if (!layout) return false;
  if (cols != 0 && rows != layout->rows) return false;
  for (std::size_t j = 0; j < cols; ++j) {
    const unsigned* column = p.connect.data() + j * p.connect.ld();
    unsigned filled = 0;
    while (filled < rows && column[filled] != tessel::ABSENT) ++filled;
    types[j] = NONE;
    for (element_type kind : layout->kinds)
      if (kind != NONE && tessel::element_records[kind].rows == filled && detail::vtk_cell_of_type(kind))
        types[j] = static_cast<unsigned char>(kind);
    if (types[j] == NONE) return false;
  }
  return true;
}

bool given_types_valid(const part& p, const dense1D<unsigned char>& cell_types) {
  if (cell_types.size() != p.connect.cols()) return false;
  for (std::size_t j = 0; j < cell_types.size(); ++j) {
    const vtk_cell* cell = detail::vtk_cell_of_type(cell_types[j]);
    if (!cell || cell->nodes > p.connect.rows()) return false;
  }
  return true;
}

// Every node a cell lists is a local node.
bool cells_use_local_nodes(const part& p, const unsigned char* types) {
  const std::size_t nb_nodes = p.coords.cols();
  for (std::size_t j = 0; j < p.connect.cols(); ++j) {
    const unsigned* column = p.connect.data() + j * p.connect.ld();
    const unsigned nodes = detail::vtk_cell_of_type(types[j])->nodes;
    for (unsigned k = 0; k < nodes; ++k)
      if (column[k] >= nb_nodes) return false;
  }
  return true;
}

bool arrays_valid(const std::vector<data_array>& arrays, std::size_t items, const char* reserved) {
  std::vector<std::string> names;
  for (const data_array& array : arrays) {
    const bool real = array.reals.rows() != 0, integer = array.integers.rows() != 0;
    const std::size_t components = real ? array.reals.rows() : array.integers.rows();
    const std::size_t cols = real ? array.reals.cols() : array.integers.cols();
    if (array.name.empty() || array.name == reserved || real == integer || cols != items || components > max_components)
      return false;
    names.push_back(array.name);
  }
  std::sort(names.begin(), names.end());
  return std::adjacent_find(names.begin(), names.end()) == names.end();
}

// What the .pvtu says of the arrays: their names, types and components, in order.
std::string signature(const std::vector<data_array>& arrays) {
  std::string out;
  for (const data_array& array : arrays) {
    const bool real = array.reals.rows() != 0;
    out += "        <PDataArray type=\"" + std::string(real ? "Float64" : "Int64") + "\" Name=\"" +
           detail::xml_escape(array.name) + "\"";
    const std::size_t components = real ? array.reals.rows() : array.integers.rows();
    if (components != 1) out += " NumberOfComponents=\"" + std::to_string(components) + "\"";
    out += "/>\n";
  }
  return out;
}

std::string piece_path(const std::string& path, int rank) {
  const std::string suffix = ".pvtu";
  const bool has_suffix =
      path.size() > suffix.size() && path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
  return (has_suffix ? path.substr(0, path.size() - suffix.size()) : path) + "_" + std::to_string(rank) + ".vtu";
}

std::string base_name(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool write_index(const std::string& path, int nb_pieces, const std::string& point_arrays,
                 const std::string& cell_arrays) {
  std::string xml = "<?xml version=\"1.0\"?>\n<VTKFile type=\"PUnstructuredGrid\" version=\"1.0\" byte_order=\"" +
                    std::string(detail::host_byte_order()) + "\" header_type=\"UInt64\">\n" +
                    "  <PUnstructuredGrid GhostLevel=\"0\">\n" + "    <PPointData GlobalIds=\"" +
                    detail::node_ids_name + "\">\n        <PDataArray type=\"Int64\" Name=\"" + detail::node_ids_name +
                    "\"/>\n" + point_arrays + "    </PPointData>\n    <PCellData GlobalIds=\"" +
                    detail::element_ids_name + "\">\n        <PDataArray type=\"Int64\" Name=\"" +
                    detail::element_ids_name + "\"/>\n" + cell_arrays + "    </PCellData>\n" +
                    "    <PPoints>\n        <PDataArray type=\"Float64\" NumberOfComponents=\"3\"/>\n    </PPoints>\n";
  for (int r = 0; r < nb_pieces; ++r)
    xml += "    <Piece Source=\"" + detail::xml_escape(base_name(piece_path(path, r))) + "\"/>\n";
  xml += "  </PUnstructuredGrid>\n</VTKFile>\n";
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return false;
  const bool written = std::fwrite(xml.data(), 1, xml.size(), file) == xml.size();
  return std::fclose(file) == 0 && written;
}

// Both forms: `types` resolves the element type of each column (false: argument 4).
template <class ResolveTypes>
int write(MPI_Comm comm, const char* path, const part& p, ResolveTypes resolve_types,
          const std::vector<data_array>& point_data, const std::vector<data_array>& cell_data) {
  if (comm == MPI_COMM_NULL) return -1;
  int status = 0;
  std::vector<unsigned char> types;
  std::string own_path, point_signature, cell_signature;
  try {
    if (!path || !*path)
      status = -2;
    else if (!part_shapes_valid(p))
      status = -3;
    else if (!resolve_types(types))
      status = -4;
    else if (!cells_use_local_nodes(p, types.data()))
      status = -3;
    else if (!arrays_valid(point_data, p.coords.cols(), detail::node_ids_name))
      status = -5;
    else if (!arrays_valid(cell_data, p.connect.cols(), detail::element_ids_name))
      status = -6;
    if (status == 0) {
      own_path = path;
      point_signature = signature(point_data);
      cell_signature = signature(cell_data);
    }
  } catch (const std::bad_alloc&) {
    status = detail::status_out_of_memory;
  }
  detail::private_comm own(comm);
  status = detail::agree(own.get(), status);
  if (status != 0) return status;

  // The path and the arrays must be rank 0's everywhere, or the pieces would disagree
  // with the index.
  const int rank = own.rank();
  std::string rank0_path, rank0_points, rank0_cells;  // rank 0 sends its own
  const bool held = detail::broadcast_text(own.get(), rank == 0 ? own_path : rank0_path) &
                    detail::broadcast_text(own.get(), rank == 0 ? point_signature : rank0_points) &
                    detail::broadcast_text(own.get(), rank == 0 ? cell_signature : rank0_cells);
  if (!held)
    status = detail::status_out_of_memory;
  else if (rank != 0)
    status = rank0_path != own_path            ? -2
             : rank0_points != point_signature ? -5
             : rank0_cells != cell_signature   ? -6
                                               : 0;
  status = detail::agree(own.get(), status);
  if (status != 0) return status;

  std::string piece;
  try {
    piece = piece_path(own_path, rank);
    if (!detail::write_piece(piece, p, types.data(), point_data, cell_data)) status = -2;
  } catch (const std::bad_alloc&) {
    status = detail::status_out_of_memory;
  }
  status = detail::agree(own.get(), status);
  if (status == 0 && rank == 0) {
    try {
      if (!write_index(own_path, own.size(), point_signature, cell_signature)) status = -2;
    } catch (const std::bad_alloc&) {
      status = detail::status_out_of_memory;
    }
  }
  status = detail::agree(own.get(), status);
  if (status != 0 && !piece.empty()) std::remove(piece.c_str());
  if (status != 0 && rank == 0) std::remove(own_path.c_str());
  return status;
}

}  // namespace

int write_pvtu(MPI_Comm comm, const char* path, const part& p, element_type type,
               const std::vector<data_array>& point_data, const std::vector<data_array>& cell_data) {
  return write(
      comm, path, p, [&](std::vector<unsigned char>& types) { return types_of_columns(p, type, types); }, point_data,
      cell_data);
}

int write_pvtu(MPI_Comm comm, const char* path, const part& p, const dense1D<unsigned char>& cell_types,
               const std::vector<data_array>& point_data, const std::vector<data_array>& cell_data) {
  return write(
      comm, path, p,
      [&](std::vector<unsigned char>& types) {
        if (!given_types_valid(p, cell_types)) return false;
        types.assign(cell_types.data(), cell_types.data() + cell_types.size());
        return true;
      },
      point_data, cell_data);
}

}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
