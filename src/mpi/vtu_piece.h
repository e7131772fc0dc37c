// One piece of a partitioned VTK unstructured grid: reading a .vtu file into plain
// vectors, and writing a part as one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "xml_scan.h"
#include "zel/tessel3d_mpi.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

inline constexpr const char* node_ids_name = "GlobalNodeID";
inline constexpr const char* element_ids_name = "GlobalElementID";

/// What an array of a file holds: its name, whether it is read as integers, its components.
struct array_layout {
  std::string name;
  bool integer = false;
  std::uint64_t components = 1;
};

/// The arrays a file declares for points or for cells, the global IDs set apart.
struct array_layouts {
  std::vector<array_layout> arrays;
  std::string ids;  // name of the global IDs' array, empty when there is none
};

/// The arrays declared under `parent` (the DataArray or PDataArray children of a PointData,
/// CellData, PPointData or PCellData element); the global IDs are the array named by the
/// element's GlobalIds attribute, else the one named `ids_name`. False for an array without
/// a name or type, with a repeated name, or with a component count outside 1..2^20.
bool read_layouts(const xml_document& doc, std::size_t parent, const char* array_element, const char* ids_name,
                  array_layouts& layouts);

/// The values of one array of a piece: reals or integers, as its layout says.
struct array_values {
  std::vector<double> reals;
  std::vector<std::int64_t> integers;
};

/// The content of one .vtu file (its pieces one after the other).
struct piece_content {
  std::size_t points = 0, cells = 0;
  std::vector<double> coords;              // 3 x points
  std::vector<std::uint64_t> node_ids;     // points, when the file has global IDs
  std::vector<std::uint64_t> element_ids;  // cells, likewise
  std::vector<std::uint8_t> types;         // the library type of each cell
  std::vector<std::size_t> starts;         // cells + 1: cell c is nodes[starts[c], starts[c + 1])
  std::vector<unsigned> nodes;             // library order, indices of points of this file
  std::vector<array_values> point_arrays;  // one per point layout
  std::vector<array_values> cell_arrays;   // one per cell layout
};

/// Reads a whole file into text (with a '\0' after it); false when it cannot be read.
bool load_file(const std::string& path, std::vector<char>& text);

/// An empty content for arrays of these layouts.
void start_content(const array_layouts& point_layouts, const array_layouts& cell_layouts, piece_content& out);

/// Reads a .vtu file and appends its points and cells to `out` (started by start_content;
/// its cells' nodes are numbered after the points already there); false when it cannot be
/// read or is not a well-formed unstructured grid holding the arrays of the layouts.
/// Throws std::bad_alloc.
bool read_piece(const std::string& path, const array_layouts& point_layouts, const array_layouts& cell_layouts,
                piece_content& out);

/// Writes a part as a .vtu file, cell j of library type types[j]; false when the file
/// cannot be written. Throws std::bad_alloc.
bool write_piece(const std::string& path, const part& p, const unsigned char* types,
                 const std::vector<data_array>& point_data, const std::vector<data_array>& cell_data);

/// "LittleEndian" or "BigEndian": this machine's byte order, which the written files use.
const char* host_byte_order();

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
