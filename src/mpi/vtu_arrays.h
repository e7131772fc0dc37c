// The data arrays of VTK's XML files: their scalar types, and the decoding of their values
// from any of the forms VTK writes (ascii; inline base64; appended raw or base64; each
// binary form with a 32- or 64-bit header, optionally zlib-compressed, in either byte
// order). Every size read from a file is checked against the bytes that can hold it
// before anything is allocated, so a crafted file costs memory and time linear in its size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "xml_scan.h"

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

enum class scalar_type : std::uint8_t { int8, uint8, int16, uint16, int32, uint32, int64, uint64, float32, float64 };

/// The type named by a DataArray's `type` attribute ("Int64", "Float32", ... and the old
/// names "Int", "Float"...); false for a name VTK does not write.
bool scalar_type_of(std::string_view name, scalar_type& type);
std::size_t scalar_size(scalar_type type);
bool is_integer(scalar_type type);

/// How the binary data of one file are laid out (from its <VTKFile> element).
struct vtu_encoding {
  bool swap_bytes = false;  // the file's byte order is not this machine's
  bool header64 = false;    // header_type="UInt64"
  bool zlib = false;        // compressor="vtkZLibDataCompressor"
};

/// Reads the layout from the root element; false for unknown byte orders, header types or
/// compressors (lz4 and lzma among them).
bool read_encoding(const xml_element& root, vtu_encoding& encoding);

/// The values of one DataArray element, in this machine's byte order.
struct decoded_array {
  scalar_type type = scalar_type::float64;
  std::vector<unsigned char> bytes;
  std::size_t count = 0;  // values (tuples x components)
};

/// Decodes `count` values of a DataArray of `file` (text[0, size)); false when the
/// element or its data are not what the file says. Throws std::bad_alloc.
bool decode_array(const char* text, std::size_t size, const xml_document& doc, const vtu_encoding& encoding,
                  const xml_element& array, std::uint64_t count, decoded_array& out);

/// Conversions of decoded values: any type to double; integer types only to 64-bit
/// integers (false for a floating type, or a value that does not fit: below 0 for
/// unsigned, above INT64_MAX for signed); `ids` takes any integer type and keeps a
/// signed value's two's-complement bits.
void to_doubles(const decoded_array& in, double* out);
bool to_int64(const decoded_array& in, std::int64_t* out);
bool to_ids(const decoded_array& in, std::uint64_t* out);

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
