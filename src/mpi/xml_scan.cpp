#include "xml_scan.h"

#include <cstring>

namespace zel {
namespace tessel3d {
namespace mpi {
namespace detail {

namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

bool is_name_end(char c) { return is_space(c) || c == '/' || c == '>' || c == '=' || c == '<'; }

// Position of `pattern` at or after `from`, or size when absent.
std::size_t find(const char* text, std::size_t size, std::size_t from, std::string_view pattern) {
  std::string_view all(text, size);
  const std::size_t at = all.find(pattern, from);
  return at == std::string_view::npos ? size : at;
}

}  // namespace

bool scan_xml(const char* text, std::size_t size, xml_document& doc) {
  doc = xml_document();
  std::vector<std::size_t> open;  // indices of the elements not yet closed
  bool root_closed = false;
  std::size_t pos = 0;
  while (pos < size) {
    const char* lt = static_cast<const char*>(std::memchr(text + pos, '<', size - pos));
    if (!lt) break;
    pos = static_cast<std::size_t>(lt - text);
    std::string_view rest(text + pos, size - pos);
    if (rest.substr(0, 4) == "<!--") {
      pos = find(text, size, pos + 4, "-->");
      if (pos == size) return false;
      pos += 3;
    } else if (rest.substr(0, 9) == "<![CDATA[") {
      pos = find(text, size, pos + 9, "]]>");
      if (pos == size) return false;
      pos += 3;
    } else if (rest.substr(0, 2) == "<?") {
      pos = find(text, size, pos + 2, "?>");
      if (pos == size) return false;
      pos += 2;
    } else if (rest.substr(0, 2) == "<!") {
      pos = find(text, size, pos + 2, ">");
      if (pos == size) return false;
      pos += 1;
    } else if (rest.substr(0, 2) == "</") {
      std::size_t end = pos + 2;
      while (end < size && !is_name_end(text[end])) ++end;
      const std::string_view name(text + pos + 2, end - pos - 2);
      while (end < size && is_space(text[end])) ++end;
      if (end >= size || text[end] != '>' || open.empty() || doc.elements[open.back()].name != name) return false;
      open.pop_back();
      root_closed = open.empty();
      pos = end + 1;
    } else {
      if (root_closed) return false;  // a second root
      std::size_t end = pos + 1;
      while (end < size && !is_name_end(text[end])) ++end;
      if (end == pos + 1) return false;
      xml_element element;
      element.name = std::string_view(text + pos + 1, end - pos - 1);
      element.parent = open.empty() ? xml_document::no_parent : open.back();
      bool closed = false;
      for (;;) {
        while (end < size && is_space(text[end])) ++end;
        if (end >= size) return false;
        if (text[end] == '>') {
          ++end;
          break;
        }
        if (text[end] == '/') {
          if (end + 1 >= size || text[end + 1] != '>') return false;
          closed = true;
          end += 2;
          break;
        }
        const std::size_t name_start = end;
        while (end < size && !is_name_end(text[end])) ++end;
        if (end == name_start) return false;
        const std::string_view attribute_name(text + name_start, end - name_start);
        while (end < size && is_space(text[end])) ++end;
        if (end >= size || text[end] != '=') return false;
        ++end;
        while (end < size && is_space(text[end])) ++end;
        if (end >= size || (text[end] != '"' && text[end] != '\'')) return false;
        const char* close = static_cast<const char*>(std::memchr(text + end + 1, text[end], size - end - 1));
        if (!close) return false;
        const std::string_view value(text + end + 1, static_cast<std::size_t>(close - text) - end - 1);
        if (!find_attribute(element, attribute_name)) element.attributes.push_back({attribute_name, value});
        end = static_cast<std::size_t>(close - text) + 1;
      }
      const char* next = static_cast<const char*>(std::memchr(text + end, '<', size - end));
      element.text = std::string_view(text + end, (next ? static_cast<std::size_t>(next - text) : size) - end);
      const bool appended = element.name == "AppendedData";
      if (appended) {
        const xml_attribute* encoding = find_attribute(element, "encoding");
        doc.appended_encoding = encoding ? encoding->value : std::string_view("raw");
      }
      doc.elements.push_back(std::move(element));
      if (appended && !closed) {
        // The block's bytes start after the first '_'; nothing after it is XML.
        while (end < size && is_space(text[end])) ++end;
        if (end >= size || text[end] != '_') return false;
        doc.appended_start = end + 1;
        return true;
      }
      if (closed)
        root_closed = open.empty();
      else
        open.push_back(doc.elements.size() - 1);
      pos = end;
    }
  }
  return !doc.elements.empty() && open.empty();
}

const xml_attribute* find_attribute(const xml_element& element, std::string_view name) {
  for (const xml_attribute& attribute : element.attributes)
    if (attribute.name == name) return &attribute;
  return nullptr;
}

std::string xml_unescape(std::string_view value) {
  static constexpr struct {
    std::string_view entity;
    char c;
  } entities[] = {{"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::string out;
  out.reserve(value.size());
  for (std::size_t i = 0; i < value.size();) {
    bool replaced = false;
    if (value[i] == '&') {
      for (const auto& e : entities)
        if (value.substr(i, e.entity.size()) == e.entity) {
          out += e.c;
          i += e.entity.size();
          replaced = true;
          break;
        }
      if (!replaced && value.substr(i, 2) == "&#") {
        std::size_t j = i + 2;
        unsigned code = 0;
        while (j < value.size() && j < i + 6 && value[j] >= '0' && value[j] <= '9')
          code = code * 10 + (value[j++] - '0');
        if (j < value.size() && value[j] == ';' && j > i + 2 && code > 0 && code < 128) {
          out += static_cast<char>(code);
          i = j + 1;
          replaced = true;
        }
      }
    }
    if (!replaced) out += value[i++];
  }
  return out;
}

std::string xml_escape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&apos;"; break;
      default: out += c;
    }
  return out;
}

std::vector<std::size_t> xml_children(const xml_document& doc, std::size_t parent, std::string_view name) {
  // The descendants of an element follow it, up to the first element that is not one
  // (whose parent comes before it): the walk costs the size of the subtree.
  std::vector<std::size_t> out;
  for (std::size_t i = parent + 1; i < doc.elements.size(); ++i) {
    const std::size_t up = doc.elements[i].parent;
    if (up == xml_document::no_parent || up < parent) break;
    if (up == parent && doc.elements[i].name == name) out.push_back(i);
  }
  return out;
}

}  // namespace detail
}  // namespace mpi
}  // namespace tessel3d
}  // namespace zel
