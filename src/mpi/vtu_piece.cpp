#include "vtu_piece.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string_view>

#include "vtk_cells.h"
#include "vtu_arrays.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

namespace {

constexpr std::uint64_t max_components = 1U << 20;
// Local node IDs are unsigned and ~0U marks an absent node.
constexpr std::uint64_t max_points = std::numeric_limits<unsigned>::max() - 1;

bool parse_count(const xml_element& element, const char* name, std::uint64_t& value) {
  const xml_attribute* attribute = find_attribute(element, name);
  if (!attribute) return false;
  const char* end = attribute->value.data() + attribute->value.size();
  const auto result = std::from_chars(attribute->value.data(), end, value);
  return result.ec == std::errc() && result.ptr == end;
}

std::uint64_t components_of(const xml_element& array) {
  std::uint64_t components = 1;
  if (find_attribute(array, "NumberOfComponents") && !parse_count(array, "NumberOfComponents", components)) return 0;
  return components;
}

// The DataArray children of an element, sorted by name, for lookups by name.
struct named_arrays {
  std::vector<std::pair<std::string, std::size_t>> by_name;

  named_arrays(const xml_document& doc, std::size_t parent) {
    if (parent == xml_document::no_parent) return;
    for (std::size_t i : xml_children(doc, parent, "DataArray")) {
      const xml_attribute* name = find_attribute(doc.elements[i], "Name");
      if (name) by_name.emplace_back(xml_unescape(name->value), i);
    }
    std::stable_sort(by_name.begin(), by_name.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  }

  const xml_element* find(const xml_document& doc, const std::string& name) const {
    auto it = std::lower_bound(by_name.begin(), by_name.end(), name,
                               [](const auto& entry, const std::string& key) { return entry.first < key; });
    return it != by_name.end() && it->first == name ? &doc.elements[it->second] : nullptr;
  }
};

std::size_t only_child(const xml_document& doc, std::size_t parent, const char* name) {
  const std::vector<std::size_t> found = xml_children(doc, parent, name);
  return found.size() == 1 ? found[0] : xml_document::no_parent;
}

struct file_view {
  const std::vector<char>& text;
  const xml_document& doc;
  const vtu_encoding& encoding;

  bool decode(const xml_element& array, std::uint64_t count, decoded_array& out) const {
    return decode_array(text.data(), text.size() - 1, doc, encoding, array, count, out);
  }
};

// Appends the values of the arrays of `layouts` found under `data` (count items each).
bool read_arrays(const file_view& file, std::size_t data, const array_layouts& layouts, std::uint64_t count,
                 std::vector<array_values>& values, std::vector<std::uint64_t>& ids) {
  const named_arrays arrays(file.doc, data);
  decoded_array decoded;
  for (std::size_t a = 0; a <= layouts.arrays.size(); ++a) {
    const bool is_ids = a == layouts.arrays.size();
    if (is_ids && layouts.ids.empty()) break;
    const std::string& name = is_ids ? layouts.ids : layouts.arrays[a].name;
    const std::uint64_t components = is_ids ? 1 : layouts.arrays[a].components;
    const xml_element* array = arrays.find(file.doc, name);
    if (!array) {
      if (count == 0) continue;
      return false;
    }
    if (components_of(*array) != components || !file.decode(*array, count * components, decoded)) return false;
    if (is_ids) {
      const std::size_t at = ids.size();
      ids.resize(at + decoded.count);
      if (!to_ids(decoded, ids.data() + at)) return false;
    } else if (layouts.arrays[a].integer) {
      std::vector<std::int64_t>& out = values[a].integers;
      const std::size_t at = out.size();
      out.resize(at + decoded.count);
      if (!to_int64(decoded, out.data() + at)) return false;
    } else {
      std::vector<double>& out = values[a].reals;
      const std::size_t at = out.size();
      out.resize(at + decoded.count);
      to_doubles(decoded, out.data() + at);
    }
  }
  return true;
}

bool read_cells(const file_view& file, std::size_t cells_element, std::uint64_t nb_cells, std::size_t point_base,
                std::uint64_t nb_points, piece_content& out) {
  if (nb_cells == 0) return true;
  const named_arrays arrays(file.doc, cells_element);
  const xml_element* connectivity = arrays.find(file.doc, "connectivity");
  const xml_element* offsets = arrays.find(file.doc, "offsets");
  const xml_element* types = arrays.find(file.doc, "types");
  if (!connectivity || !offsets || !types) return false;
  decoded_array decoded;
  if (!file.decode(*offsets, nb_cells, decoded)) return false;
  std::vector<std::int64_t> ends(decoded.count);
  if (!to_int64(decoded, ends.data())) return false;
  if (!file.decode(*types, nb_cells, decoded)) return false;
  std::vector<std::int64_t> vtk_types(decoded.count);
  if (!to_int64(decoded, vtk_types.data())) return false;
  // Each cell has its type's node count, so the offsets are known before the connectivity
  // is read, and a cell of a kind the library lacks stops the reading there.
  std::int64_t start = 0;
  const std::size_t node_base = out.nodes.size();
  std::vector<const vtk_cell*> records(nb_cells);
  for (std::size_t c = 0; c < nb_cells; ++c) {
    records[c] = vtk_types[c] >= 0 && vtk_types[c] < 256 ? vtk_cell_of_vtk_type(unsigned(vtk_types[c])) : nullptr;
    // ends[c] < start first: the difference of two file values could overflow
    if (!records[c] || ends[c] < start || ends[c] - start != records[c]->nodes) return false;
    start = ends[c];
  }
  if (!file.decode(*connectivity, std::uint64_t(start), decoded)) return false;
  std::vector<std::int64_t> vtk_nodes(decoded.count);
  if (!to_int64(decoded, vtk_nodes.data())) return false;
  out.nodes.resize(node_base + vtk_nodes.size());
  std::size_t at = 0;
  for (std::size_t c = 0; c < nb_cells; ++c) {
    const vtk_cell& record = *records[c];
    unsigned* cell = out.nodes.data() + node_base + at;
    for (unsigned k = 0; k < record.nodes; ++k) {
      const std::int64_t v = vtk_nodes[at + k];
      if (v < 0 || std::uint64_t(v) >= nb_points) return false;
      cell[record.order[k]] = static_cast<unsigned>(point_base + std::size_t(v));
    }
    at += record.nodes;
    out.types.push_back(static_cast<std::uint8_t>(record.type));
    out.starts.push_back(node_base + at);
  }
  return true;
}

class buffered_file {
 public:
  explicit buffered_file(const std::string& path) : file_(std::fopen(path.c_str(), "wb")) { buffer_.reserve(1 << 20); }
  ~buffered_file() {
    if (file_) std::fclose(file_);
  }
  buffered_file(const buffered_file&) = delete;
  buffered_file& operator=(const buffered_file&) = delete;

  void put(const void* data, std::size_t n) {
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    while (n) {
      const std::size_t take = std::min(n, buffer_.capacity() - buffer_.size());
      buffer_.insert(buffer_.end(), bytes, bytes + take);
      bytes += take;
      n -= take;
      if (buffer_.size() == buffer_.capacity()) flush();
    }
  }
  void put(std::string_view text) { put(text.data(), text.size()); }
  template <class T>
  void put_value(T value) {
    put(&value, sizeof(T));
  }

  /// Writes what is buffered and closes the file; true when every byte reached it.
  bool close() {
    flush();
    const bool closed = file_ && std::fclose(file_) == 0;
    file_ = nullptr;
    return ok_ && closed;
  }

 private:
  void flush() {
    if (file_ && !buffer_.empty() && std::fwrite(buffer_.data(), 1, buffer_.size(), file_) != buffer_.size())
      ok_ = false;
    buffer_.clear();
  }
  std::FILE* file_;
  std::vector<unsigned char> buffer_;
  bool ok_ = true;
};

// One array of a written piece: its XML attributes and the bytes of its values.
struct written_array {
  std::string name;
  const char* type;
  std::size_t components;
  std::uint64_t bytes;
};

std::string array_tag(const written_array& array, std::uint64_t offset) {
  std::string tag = "        <DataArray type=\"" + std::string(array.type) + "\"";
  if (!array.name.empty()) tag += " Name=\"" + xml_escape(array.name) + "\"";
  if (array.components != 1) tag += " NumberOfComponents=\"" + std::to_string(array.components) + "\"";
  return tag + " format=\"appended\" offset=\"" + std::to_string(offset) + "\"/>\n";
}

written_array describe(const data_array& array, std::size_t items) {
  const bool integer = array.reals.rows() == 0;
  const std::size_t components = integer ? array.integers.rows() : array.reals.rows();
  return {array.name, integer ? "Int64" : "Float64", components, std::uint64_t(components) * items * 8};
}

template <class T>
void put_matrix(buffered_file& file, const dense2D<T>& m) {
  for (std::size_t j = 0; j < m.cols(); ++j) file.put(m.data() + j * m.ld(), m.rows() * sizeof(T));
}

void put_data(buffered_file& file, const data_array& array) {
  if (array.reals.rows() != 0)
    put_matrix(file, array.reals);
  else
    put_matrix(file, array.integers);
}

}  // namespace

const char* host_byte_order() {
  const std::uint16_t one = 1;
  unsigned char first;
  std::memcpy(&first, &one, 1);
  return first == 1 ? "LittleEndian" : "BigEndian";
}

bool read_layouts(const xml_document& doc, std::size_t parent, const char* array_element, const char* ids_name,
                  array_layouts& layouts) {
  layouts = array_layouts();
  if (parent == xml_document::no_parent) return true;
  const xml_attribute* marked = find_attribute(doc.elements[parent], "GlobalIds");
  const std::string ids = marked ? xml_unescape(marked->value) : std::string(ids_name);
  std::vector<std::string> names;
  for (std::size_t i : xml_children(doc, parent, array_element)) {
    const xml_element& element = doc.elements[i];
    const xml_attribute* name = find_attribute(element, "Name");
    const xml_attribute* type_name = find_attribute(element, "type");
    scalar_type type;
    if (!name || !type_name || !scalar_type_of(type_name->value, type)) return false;
    array_layout layout{xml_unescape(name->value), is_integer(type), components_of(element)};
    if (layout.components == 0 || layout.components > max_components) return false;
    names.push_back(layout.name);
    if (layout.name == ids) {
      if (!layout.integer || layout.components != 1) return false;
      layouts.ids = ids;
    } else {
      layouts.arrays.push_back(std::move(layout));
    }
  }
  std::sort(names.begin(), names.end());
  return std::adjacent_find(names.begin(), names.end()) == names.end();
}

bool load_file(const std::string& path, std::vector<char>& text) {
  text.clear();
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) return false;
  // One read of the whole file when its size is known, chunks otherwise (a pipe).
  long size = -1;
  if (std::fseek(file, 0, SEEK_END) == 0) size = std::ftell(file);
  bool ok = size >= 0 && std::fseek(file, 0, SEEK_SET) == 0;
  try {
    if (ok) {
      text.resize(static_cast<std::size_t>(size));
      ok = std::fread(text.data(), 1, text.size(), file) == text.size();
    } else {
      std::clearerr(file);
      char chunk[1 << 16];
      std::size_t got;
      while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) text.insert(text.end(), chunk, chunk + got);
      ok = !std::ferror(file);
    }
    text.push_back('\0');
  } catch (...) {
    std::fclose(file);
    throw;
  }
  std::fclose(file);
  return ok;
}

void start_content(const array_layouts& point_layouts, const array_layouts& cell_layouts, piece_content& out) {
  out = piece_content();
  out.point_arrays.resize(point_layouts.arrays.size());
  out.cell_arrays.resize(cell_layouts.arrays.size());
  out.starts.push_back(0);
}

bool read_piece(const std::string& path, const array_layouts& point_layouts, const array_layouts& cell_layouts,
                piece_content& out) {
  std::vector<char> text;
  if (!load_file(path, text)) return false;
  xml_document doc;
  vtu_encoding encoding;
  if (!scan_xml(text.data(), text.size() - 1, doc)) return false;
  const xml_element& root = doc.elements[0];
  const xml_attribute* kind = find_attribute(root, "type");
  if (root.name != "VTKFile" || !kind || kind->value != "UnstructuredGrid" || !read_encoding(root, encoding))
    return false;
  const std::size_t grid = only_child(doc, 0, "UnstructuredGrid");
  if (grid == xml_document::no_parent) return false;
  const file_view file{text, doc, encoding};
  decoded_array decoded;
  for (std::size_t piece : xml_children(doc, grid, "Piece")) {
    std::uint64_t nb_points, nb_cells;
    if (!parse_count(doc.elements[piece], "NumberOfPoints", nb_points) ||
        !parse_count(doc.elements[piece], "NumberOfCells", nb_cells))
      return false;
    // no file holds more cells than bytes, less zlib's largest expansion
    if (nb_points > max_points - out.points || nb_cells / 1032 > text.size()) return false;
    const std::size_t point_base = out.points;
    if (nb_points) {
      const std::size_t points = only_child(doc, piece, "Points");
      if (points == xml_document::no_parent) return false;
      const std::vector<std::size_t> arrays = xml_children(doc, points, "DataArray");
      if (arrays.size() != 1 || components_of(doc.elements[arrays[0]]) != 3 ||
          !file.decode(doc.elements[arrays[0]], 3 * nb_points, decoded))
        return false;
      out.coords.resize(out.coords.size() + decoded.count);
      to_doubles(decoded, out.coords.data() + 3 * point_base);
    }
    const std::size_t nb_node_ids = out.node_ids.size(), nb_element_ids = out.element_ids.size();
    if (!read_arrays(file, only_child(doc, piece, "PointData"), point_layouts, nb_points, out.point_arrays,
                     out.node_ids) ||
        !read_arrays(file, only_child(doc, piece, "CellData"), cell_layouts, nb_cells, out.cell_arrays,
                     out.element_ids))
      return false;
    // a piece without points or cells may leave out its (empty) global IDs
    if (!point_layouts.ids.empty() && out.node_ids.size() != nb_node_ids + nb_points) return false;
    if (!cell_layouts.ids.empty() && out.element_ids.size() != nb_element_ids + nb_cells) return false;
    if (nb_cells) {
      const std::size_t cells = only_child(doc, piece, "Cells");
      if (cells == xml_document::no_parent || !read_cells(file, cells, nb_cells, point_base, nb_points, out))
        return false;
    }
    out.points += nb_points;
    out.cells += nb_cells;
  }
  return true;
}

bool write_piece(const std::string& path, const part& p, const unsigned char* types,
                 const std::vector<data_array>& point_data, const std::vector<data_array>& cell_data) {
  const std::size_t nb_points = p.coords.cols(), nb_cells = p.connect.cols();
  std::uint64_t nb_entries = 0;
  for (std::size_t j = 0; j < nb_cells; ++j) nb_entries += vtk_cell_of_type(types[j])->nodes;

  std::vector<written_array> arrays;
  arrays.push_back({node_ids_name, "Int64", 1, 8 * nb_points});
  for (const data_array& array : point_data) arrays.push_back(describe(array, nb_points));
  arrays.push_back({element_ids_name, "Int64", 1, 8 * nb_cells});
  for (const data_array& array : cell_data) arrays.push_back(describe(array, nb_cells));
  arrays.push_back({"", "Float64", 3, 24 * nb_points});
  arrays.push_back({"connectivity", "Int64", 1, 8 * nb_entries});
  arrays.push_back({"offsets", "Int64", 1, 8 * nb_cells});
  arrays.push_back({"types", "UInt8", 1, nb_cells});

  std::vector<std::uint64_t> offsets;
  std::uint64_t offset = 0;
  for (const written_array& array : arrays) {
    offsets.push_back(offset);
    offset += 8 + array.bytes;  // each array starts with its byte count
  }
  std::string xml = "<?xml version=\"1.0\"?>\n<VTKFile type=\"UnstructuredGrid\" version=\"1.0\" byte_order=\"" +
                    std::string(host_byte_order()) + "\" header_type=\"UInt64\">\n  <UnstructuredGrid>\n" +
                    "    <Piece NumberOfPoints=\"" + std::to_string(nb_points) + "\" NumberOfCells=\"" +
                    std::to_string(nb_cells) + "\">\n";
  std::size_t a = 0;
  xml += "      <PointData GlobalIds=\"" + std::string(node_ids_name) + "\">\n";
  for (std::size_t k = 0; k <= point_data.size(); ++k, ++a) xml += array_tag(arrays[a], offsets[a]);
  xml += "      </PointData>\n      <CellData GlobalIds=\"" + std::string(element_ids_name) + "\">\n";
  for (std::size_t k = 0; k <= cell_data.size(); ++k, ++a) xml += array_tag(arrays[a], offsets[a]);
  xml += "      </CellData>\n      <Points>\n" + array_tag(arrays[a], offsets[a]) + "      </Points>\n";
  ++a;
  xml += "      <Cells>\n";
  for (; a < arrays.size(); ++a) xml += array_tag(arrays[a], offsets[a]);
  xml += "      </Cells>\n    </Piece>\n  </UnstructuredGrid>\n  <AppendedData encoding=\"raw\">\n   _";

  buffered_file file(path);
  file.put(xml);
  a = 0;
  file.put_value(arrays[a++].bytes);
  file.put(p.node_ids.data(), 8 * nb_points);
  for (const data_array& array : point_data) {
    file.put_value(arrays[a++].bytes);
    put_data(file, array);
  }
  file.put_value(arrays[a++].bytes);
  file.put(p.element_ids.data(), 8 * nb_cells);
  for (const data_array& array : cell_data) {
    file.put_value(arrays[a++].bytes);
    put_data(file, array);
  }
  file.put_value(arrays[a++].bytes);
  put_matrix(file, p.coords);
  file.put_value(arrays[a++].bytes);
  for (std::size_t j = 0; j < nb_cells; ++j) {
    const vtk_cell& record = *vtk_cell_of_type(types[j]);
    const unsigned* column = p.connect.data() + j * p.connect.ld();
    for (unsigned k = 0; k < record.nodes; ++k) file.put_value(std::int64_t(column[record.order[k]]));
  }
  file.put_value(arrays[a++].bytes);
  std::int64_t end = 0;
  for (std::size_t j = 0; j < nb_cells; ++j) file.put_value(end += vtk_cell_of_type(types[j])->nodes);
  file.put_value(arrays[a++].bytes);
  for (std::size_t j = 0; j < nb_cells; ++j) file.put_value(vtk_cell_of_type(types[j])->vtk_type);
  file.put("\n  </AppendedData>\n</VTKFile>\n");
  return file.close();
}

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
