// A small, non-validating XML scanner for the VTK files: elements with their attributes
// and the text directly inside them, in document order. It reads in one pass without
// recursion, so any input costs time linear in its size; the scan stops at the start of
// an <AppendedData> block, whose raw bytes are not XML.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

struct xml_attribute {
  std::string_view name;
  std::string_view value;  // as written, entities not expanded
};

struct xml_element {
  std::string_view name;
  std::vector<xml_attribute> attributes;
  std::size_t parent;     // index in xml_document::elements, no_parent for the root
  std::string_view text;  // characters between the start tag and the next tag
};

struct xml_document {
  static constexpr std::size_t no_parent = static_cast<std::size_t>(-1);
  std::vector<xml_element> elements;
  // Where the bytes of an <AppendedData> block start (after its '_'), or no_parent.
  std::size_t appended_start = no_parent;
  std::string_view appended_encoding;
};

/// Scans text[0, size); false on anything that is not well-formed enough to trust
/// (unclosed tags or quotes, mismatched end tags, no root element). May throw
/// std::bad_alloc.
bool scan_xml(const char* text, std::size_t size, xml_document& doc);

/// The value of an attribute, or nullptr when the element has none of that name.
const xml_attribute* find_attribute(const xml_element& element, std::string_view name);

/// The attribute's value with the five predefined entities expanded (&amp; &lt; &gt;
/// &quot; &apos;) and numeric character references below 128; others are kept as written.
std::string xml_unescape(std::string_view value);
/// text with & < > " ' escaped, for an attribute value.
std::string xml_escape(std::string_view text);

/// Indices of the children of element `parent` named `name`, in document order.
std::vector<std::size_t> xml_children(const xml_document& doc, std::size_t parent, std::string_view name);

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
