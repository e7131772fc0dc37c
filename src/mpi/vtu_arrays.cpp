#include "vtu_arrays.h"

#ifdef TESSEL3D_HAVE_ZLIB
#include <zlib.h>
#endif

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

namespace {

constexpr struct {
  std::string_view name;
  scalar_type type;
} scalar_names[] = {
    {"Int8", scalar_type::int8},       {"UInt8", scalar_type::uint8},   {"Int16", scalar_type::int16},
    {"UInt16", scalar_type::uint16},   {"Int32", scalar_type::int32},   {"UInt32", scalar_type::uint32},
    {"Int64", scalar_type::int64},     {"UInt64", scalar_type::uint64}, {"Float32", scalar_type::float32},
    {"Float64", scalar_type::float64}, {"Char", scalar_type::int8},     {"UChar", scalar_type::uint8},
    {"Short", scalar_type::int16},     {"UShort", scalar_type::uint16}, {"Int", scalar_type::int32},
    {"UInt", scalar_type::uint32},     {"Float", scalar_type::float32}, {"Double", scalar_type::float64}};

// Calls f with a value of the C++ type of `type` (its value unused).
template <class F>
auto visit(scalar_type type, F&& f) {
  switch (type) {
    case scalar_type::int8: return f(std::int8_t());
    case scalar_type::uint8: return f(std::uint8_t());
    case scalar_type::int16: return f(std::int16_t());
    case scalar_type::uint16: return f(std::uint16_t());
    case scalar_type::int32: return f(std::int32_t());
    case scalar_type::uint32: return f(std::uint32_t());
    case scalar_type::int64: return f(std::int64_t());
    case scalar_type::uint64: return f(std::uint64_t());
    case scalar_type::float32: return f(float());
    default: return f(double());
  }
}

bool little_endian_host() {
  const std::uint16_t one = 1;
  unsigned char first;
  std::memcpy(&first, &one, 1);
  return first == 1;
}

// Bytes of a binary block: raw, or base64 text decoded as it is read. A base64 stream
// may hold padding in its middle: VTK encodes a block's header and its data separately,
// other writers together, and reading quantum by quantum takes both.
class byte_source {
 public:
  byte_source(const char* begin, const char* end, bool base64) : at_(begin), end_(end), base64_(base64) {}

  /// An upper bound on the bytes that remain.
  std::size_t available() const {
    const std::size_t chars = static_cast<std::size_t>(end_ - at_);
    return (base64_ ? chars / 4 * 3 + 3 : chars) + (pending_end_ - pending_at_);
  }

  bool read(unsigned char* out, std::size_t n) {
    if (!base64_) {
      if (n > static_cast<std::size_t>(end_ - at_)) return false;
      if (n) std::memcpy(out, at_, n);
      at_ += n;
      return true;
    }
    while (n) {
      if (pending_at_ == pending_end_ && !next_quantum()) return false;
      const std::size_t take = std::min<std::size_t>(n, pending_end_ - pending_at_);
      std::memcpy(out, pending_ + pending_at_, take);
      pending_at_ += static_cast<unsigned>(take);
      out += take;
      n -= take;
    }
    return true;
  }

 private:
  static int sextet(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return c == '=' ? 64 : -1;
  }

  bool next_quantum() {
    int v[4];
    for (int k = 0; k < 4;) {
      if (at_ == end_) return false;
      const char c = *at_++;
      if (c == ' ' || c == '\n' || c == '\r' || c == '\t') continue;
      v[k] = sextet(c);
      if (v[k] < 0) return false;
      ++k;
    }
    if (v[0] == 64 || v[1] == 64 || (v[2] == 64 && v[3] != 64)) return false;
    const unsigned bits = unsigned(v[0]) << 18 | unsigned(v[1]) << 12 | unsigned(v[2] & 63) << 6 | unsigned(v[3] & 63);
    pending_[0] = static_cast<unsigned char>(bits >> 16);
    pending_[1] = static_cast<unsigned char>(bits >> 8);
    pending_[2] = static_cast<unsigned char>(bits);
    pending_at_ = 0;
    pending_end_ = v[2] == 64 ? 1 : v[3] == 64 ? 2 : 3;
    return true;
  }

  const char* at_;
  const char* end_;
  bool base64_;
  unsigned char pending_[3] = {0, 0, 0};
  unsigned pending_at_ = 0, pending_end_ = 0;
};

void swap_each(unsigned char* bytes, std::size_t count, std::size_t size) {
  if (size > 1)
    for (std::size_t i = 0; i < count; ++i) std::reverse(bytes + i * size, bytes + (i + 1) * size);
}

bool read_word(byte_source& source, const vtu_encoding& encoding, std::uint64_t& word) {
  unsigned char bytes[8];
  const std::size_t size = encoding.header64 ? 8 : 4;
  if (!source.read(bytes, size)) return false;
  if (encoding.swap_bytes) std::reverse(bytes, bytes + size);
  if (encoding.header64) {
    std::memcpy(&word, bytes, 8);
  } else {
    std::uint32_t small;
    std::memcpy(&small, bytes, 4);
    word = small;
  }
  return true;
}

// zlib's stream format cannot expand data more than about 1032 times.
constexpr std::uint64_t max_zlib_ratio = 1032;

bool read_compressed(byte_source& source, const vtu_encoding& encoding, std::size_t expected,
                     std::vector<unsigned char>& out) {
  std::uint64_t blocks, block_size, last_size;
  if (!read_word(source, encoding, blocks) || !read_word(source, encoding, block_size) ||
      !read_word(source, encoding, last_size))
    return false;
  const std::size_t word = encoding.header64 ? 8 : 4;
  if (blocks > source.available() / word) return false;
  if (last_size > block_size) return false;
  std::uint64_t total = 0;
  if (blocks) {
    if (block_size != 0 && blocks - 1 > std::numeric_limits<std::uint64_t>::max() / block_size) return false;
    total = (blocks - 1) * block_size;
    const std::uint64_t last = last_size ? last_size : block_size;
    if (total > std::numeric_limits<std::uint64_t>::max() - last) return false;
    total += last;
  }
  if (total != expected) return false;
  std::vector<std::uint64_t> sizes(static_cast<std::size_t>(blocks));
  std::uint64_t compressed = 0;
  for (std::uint64_t& size : sizes) {
    if (!read_word(source, encoding, size) || size > source.available()) return false;
    compressed += size;
    if (compressed > source.available()) return false;
  }
  out.resize(expected);
  std::vector<unsigned char> block;
  std::size_t at = 0;
  for (std::size_t b = 0; b < sizes.size(); ++b) {
    const std::uint64_t want = (b + 1 == sizes.size() && last_size) ? last_size : block_size;
    if (want > sizes[b] * max_zlib_ratio + 64) return false;
    block.resize(static_cast<std::size_t>(sizes[b]));
    if (!source.read(block.data(), block.size())) return false;
#ifdef TESSEL3D_HAVE_ZLIB
    uLongf produced = static_cast<uLongf>(want);
    if (uncompress(out.data() + at, &produced, block.data(), static_cast<uLong>(block.size())) != Z_OK ||
        produced != want)
      return false;
#else
    return false;
#endif
    at += static_cast<std::size_t>(want);
  }
  return true;
}

template <class T>
bool parse_ascii(std::string_view text, std::size_t count, unsigned char* out) {
  const char* at = text.data();
  const char* end = text.data() + text.size();
  for (std::size_t i = 0; i < count; ++i) {
    while (at < end && (*at == ' ' || *at == '\n' || *at == '\r' || *at == '\t')) ++at;
    T value;
    if constexpr (std::is_integral<T>::value) {
      // int8 and uint8 are written as numbers, not characters
      using wide = typename std::conditional<std::is_signed<T>::value, long long, unsigned long long>::type;
      wide w;
      const auto result = std::from_chars(at, end, w);
      if (result.ec != std::errc() || w < wide(std::numeric_limits<T>::min()) ||
          w > wide(std::numeric_limits<T>::max()))
        return false;
      value = static_cast<T>(w);
      at = result.ptr;
    } else {
      const auto result = std::from_chars(at, end, value);
      if (result.ec != std::errc()) return false;
      at = result.ptr;
    }
    std::memcpy(out + i * sizeof(T), &value, sizeof(T));
  }
  while (at < end && (*at == ' ' || *at == '\n' || *at == '\r' || *at == '\t')) ++at;
  return at == end;
}

}  // namespace

bool scalar_type_of(std::string_view name, scalar_type& type) {
  for (const auto& entry : scalar_names)
    if (entry.name == name) {
      type = entry.type;
      return true;
    }
  return false;
}

std::size_t scalar_size(scalar_type type) {
  return visit(type, [](auto value) { return sizeof(value); });
}

bool is_integer(scalar_type type) { return type != scalar_type::float32 && type != scalar_type::float64; }

bool read_encoding(const xml_element& root, vtu_encoding& encoding) {
  encoding = vtu_encoding();
  const xml_attribute* order = find_attribute(root, "byte_order");
  if (order) {
    if (order->value != "LittleEndian" && order->value != "BigEndian") return false;
    encoding.swap_bytes = (order->value == "LittleEndian") != little_endian_host();
  }
  const xml_attribute* header = find_attribute(root, "header_type");
  if (header) {
    if (header->value != "UInt32" && header->value != "UInt64") return false;
    encoding.header64 = header->value == "UInt64";
  }
  const xml_attribute* compressor = find_attribute(root, "compressor");
  if (compressor && !compressor->value.empty()) {
#ifndef TESSEL3D_HAVE_ZLIB
    return false;
#endif
    if (compressor->value != "vtkZLibDataCompressor") return false;
    encoding.zlib = true;
  }
  return true;
}

bool decode_array(const char* text, std::size_t size, const xml_document& doc, const vtu_encoding& encoding,
                  const xml_element& array, std::uint64_t count, decoded_array& out) {
  const xml_attribute* type_name = find_attribute(array, "type");
  if (!type_name || !scalar_type_of(type_name->value, out.type)) return false;
  const std::size_t value_size = scalar_size(out.type);
  // No file holds more values than it has bytes, less zlib's largest expansion.
  if (count > (std::numeric_limits<std::uint64_t>::max() / max_zlib_ratio) / 8) return false;
  const std::size_t expected = static_cast<std::size_t>(count) * value_size;
  out.count = static_cast<std::size_t>(count);
  out.bytes.clear();

  const xml_attribute* format = find_attribute(array, "format");
  const std::string_view form = format ? format->value : std::string_view("ascii");
  if (form == "ascii") {
    if (count > array.text.size()) return false;  // each value takes a character at least
    out.bytes.resize(expected);
    return visit(out.type,
                 [&](auto value) { return parse_ascii<decltype(value)>(array.text, out.count, out.bytes.data()); });
  }
  const char* begin;
  const char* end = text + size;
  bool base64 = true;
  if (form == "binary") {
    begin = array.text.data();
    end = array.text.data() + array.text.size();
  } else if (form == "appended") {
    const xml_attribute* offset_text = find_attribute(array, "offset");
    std::uint64_t offset = 0;
    if (!offset_text || doc.appended_start == xml_document::no_parent) return false;
    const char* digits_end = offset_text->value.data() + offset_text->value.size();
    const auto parsed = std::from_chars(offset_text->value.data(), digits_end, offset);
    if (parsed.ec != std::errc() || parsed.ptr != digits_end) return false;
    if (offset > size - doc.appended_start) return false;
    begin = text + doc.appended_start + offset;
    if (doc.appended_encoding == "raw")
      base64 = false;
    else if (doc.appended_encoding != "base64")
      return false;
  } else {
    return false;
  }
  byte_source source(begin, end, base64);
  if (encoding.zlib) {
    if (expected > (source.available() + 64) * max_zlib_ratio) return false;
    if (!read_compressed(source, encoding, expected, out.bytes)) return false;
  } else {
    std::uint64_t length;
    if (!read_word(source, encoding, length) || length != expected || expected > source.available()) return false;
    out.bytes.resize(expected);
    if (!source.read(out.bytes.data(), expected)) return false;
  }
  if (encoding.swap_bytes) swap_each(out.bytes.data(), out.count, value_size);
  return true;
}

void to_doubles(const decoded_array& in, double* out) {
  visit(in.type, [&](auto value) {
    using T = decltype(value);
    for (std::size_t i = 0; i < in.count; ++i) {
      T v;
      std::memcpy(&v, in.bytes.data() + i * sizeof(T), sizeof(T));
      out[i] = static_cast<double>(v);
    }
    return 0;
  });
}

bool to_int64(const decoded_array& in, std::int64_t* out) {
  return visit(in.type, [&](auto value) {
    using T = decltype(value);
    if constexpr (!std::is_integral<T>::value) {
      return false;
    } else {
      for (std::size_t i = 0; i < in.count; ++i) {
        T v;
        std::memcpy(&v, in.bytes.data() + i * sizeof(T), sizeof(T));
        if (std::is_same<T, std::uint64_t>::value &&
            static_cast<std::uint64_t>(v) > std::uint64_t(std::numeric_limits<std::int64_t>::max()))
          return false;
        out[i] = static_cast<std::int64_t>(v);
      }
      return true;
    }
  });
}

bool to_ids(const decoded_array& in, std::uint64_t* out) {
  return visit(in.type, [&](auto value) {
    using T = decltype(value);
    if constexpr (!std::is_integral<T>::value) {
      return false;
    } else {
      for (std::size_t i = 0; i < in.count; ++i) {
        T v;
        std::memcpy(&v, in.bytes.data() + i * sizeof(T), sizeof(T));
        out[i] = static_cast<std::uint64_t>(static_cast<std::int64_t>(v));
      }
      return true;
    }
  });
}

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
