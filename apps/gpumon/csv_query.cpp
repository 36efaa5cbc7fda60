#include "csv_query.h"

#include <charconv>

namespace {

std::string number_text(double value) {
  char text[64];
  const std::to_chars_result end = std::to_chars(text, text + sizeof text, value);
  return std::string(text, end.ptr);
}

std::string quoted(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string out = "\"";
  for (char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
  return out + "\"";
}

std::string cell(const GpuField& field, const FieldValue& value, bool units) {
  switch (value.kind) {
    case FieldValue::kNumber:
      return number_text(value.number) +
             (units && field.unit[0] != '\0' ? std::string(" ") + field.unit : "");
    case FieldValue::kText:
      return quoted(value.text);
    case FieldValue::kBool:
      return value.flag ? "true" : "false";
    case FieldValue::kUnknown:
      break;
  }
  return "[N/A]";
}

}  // namespace

std::string csv_header(const std::vector<const GpuField*>& fields) {
  std::string line;
  for (const GpuField* field : fields) {
    if (!line.empty()) line += ", ";
    line += field->query;
    if (field->unit[0] != '\0') line += std::string(" [") + field->unit + "]";
  }
  return line + "\n";
}

std::string csv_rows(const std::vector<const GpuField*>& fields, const std::vector<GpuView>& gpus,
                     bool units) {
  std::string out;
  for (const GpuView& gpu : gpus) {
    std::string line;
    for (const GpuField* field : fields) {
      if (!line.empty()) line += ", ";
      line += cell(*field, field->read(gpu), units);
    }
    out += line + "\n";
  }
  return out;
}
