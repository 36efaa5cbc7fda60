#include "csv_query.h"

#include <charconv>
#include <cstdio>
#include <ctime>

namespace {

std::string number_text(double value, int decimals) {
  char text[64];
  if (decimals >= 0) {
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
  }
  const std::to_chars_result end = std::to_chars(text, text + sizeof text, value);
  return std::string(text, end.ptr);
}

std::string quoted(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string out = "\"";
  for (char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
  return out + "\"";
}

// "0000:0c:00.0" as nvidia-smi writes it: "00000000:0C:00.0".
std::string bus_id_text(const std::string& address) {
  unsigned domain = 0, bus = 0, device = 0, function = 0;
  if (std::sscanf(address.c_str(), "%x:%x:%x.%x", &domain, &bus, &device, &function) != 4)
    return address;
  char text[32];
  std::snprintf(text, sizeof text, "%08X:%02X:%02X.%X", domain, bus, device, function);
  return text;
}

// "2026-07-14T08:12:53.353Z" (UTC) as nvidia-smi writes the time: local,
// "2026/07/14 10:12:53.353".
std::string local_time_text(const std::string& iso) {
  struct tm utc {};
  int millis = 0;
  if (std::sscanf(iso.c_str(), "%d-%d-%dT%d:%d:%d.%dZ", &utc.tm_year, &utc.tm_mon, &utc.tm_mday,
                  &utc.tm_hour, &utc.tm_min, &utc.tm_sec, &millis) != 7)
    return iso;
  utc.tm_year -= 1900;
  utc.tm_mon -= 1;
  const time_t when = timegm(&utc);
  struct tm local {};
  localtime_r(&when, &local);
  char text[48];
  const size_t n = std::strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &local);
  std::snprintf(text + n, sizeof text - n, ".%03d", millis);
  return text;
}

std::string cell(const QueryColumn& column, const FieldValue& value, bool units) {
  switch (value.kind) {
    case FieldValue::kNumber:
      return number_text(value.number, column.decimals) +
             (units && column.unit[0] != '\0' ? std::string(" ") + column.unit : "");
    case FieldValue::kText:
      if (column.form == QueryColumn::kBusId) return bus_id_text(value.text);
      if (column.form == QueryColumn::kLocalTime) return local_time_text(value.text);
      return quoted(value.text);
    case FieldValue::kBool: return value.flag ? "true" : "false";
    case FieldValue::kUnknown: break;
  }
  return "[N/A]";
}

}  // namespace

std::string csv_header(const std::vector<QueryColumn>& columns) {
  std::string line;
  for (const QueryColumn& column : columns) {
    if (!line.empty()) line += ", ";
    line += column.header;
    if (column.unit[0] != '\0') line += std::string(" [") + column.unit + "]";
  }
  return line + "\n";
}

std::string csv_rows(const std::vector<QueryColumn>& columns, const std::vector<GpuView>& gpus,
                     bool units) {
  std::string out;
  for (const GpuView& gpu : gpus) {
    std::string line;
    for (const QueryColumn& column : columns) {
      if (!line.empty()) line += ", ";
      line += cell(column, column.field->read(gpu), units);
    }
    out += line + "\n";
  }
  return out;
}
