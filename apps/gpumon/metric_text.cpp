#include "metric_text.h"

#include <charconv>

namespace {

// Length of the well-formed UTF-8 sequence at text[i]; 0 when the bytes
// there are not one (a stray continuation byte, an overlong form, a
// surrogate, a cut-off sequence).
size_t utf8_length(const std::string& text, size_t i) {
  const unsigned char lead = static_cast<unsigned char>(text[i]);
  if (lead < 0x80) return 1;
  size_t length = 0;
  unsigned code = 0, least = 0;
  if ((lead & 0xE0) == 0xC0) {
    length = 2, code = lead & 0x1Fu, least = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, code = lead & 0x0Fu, least = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, code = lead & 0x07u, least = 0x10000;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  for (size_t k = 1; k < length; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return 0;
    code = (code << 6) | (next & 0x3Fu);
  }
  if (code < least || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return length;
}

}  // namespace

std::string escape_label_value(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const size_t length = utf8_length(text, i);
    if (length == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
      continue;
    }
    const char c = text[i];
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '"') {
      out += "\\\"";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out.append(text, i, length);
    }
    i += length;
  }
  return out;
}

std::string format_number(double value) {
  char text[512];  // the longest double written out in full is 309 digits
  const std::to_chars_result end =
      std::to_chars(text, text + sizeof text, value, std::chars_format::fixed);
  return std::string(text, end.ptr);
}

Labels& Labels::add(const char* name, const std::string& value) {
  if (value.empty()) return *this;
  text_ +=
      (text_.empty() ? "" : ",") + std::string(name) + "=\"" + escape_label_value(value) + "\"";
  return *this;
}

Labels Labels::with(const char* name, const std::string& value) const {
  Labels copy = *this;
  copy.add(name, value);
  return copy;
}

void MetricFamily::add(const Labels& labels, double value) {
  samples_ += name_;
  if (!labels.text().empty()) samples_ += "{" + labels.text() + "}";
  samples_ += " " + format_number(value) + "\n";
}

void MetricFamily::write_to(std::string* out) const {
  if (samples_.empty()) return;
  *out += std::string("# HELP ") + name_ + " " + help_ + "\n# TYPE " + name_ + " " + type_ + "\n" +
          samples_;
}
