#include "backends/nvidia/nv_smi_answers.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "gpudb/gpu_db.h"
#include "io/copy_text.h"

namespace nv_smi_answer {

bool no_value(const char* line) {
  while (*line == ' ' || *line == '\t') ++line;
  return *line == '\0' || *line == '\n' || *line == '\r' || *line == '[' ||
         std::strncmp(line, "N/A", 3) == 0;
}

bool is_number(const char* line) {
  while (*line == ' ' || *line == '\t') ++line;
  if (*line == '-' || *line == '+') ++line;
  return std::isdigit(static_cast<unsigned char>(*line)) != 0;
}

bool parse_text(const char* line, char* out) {
  if (no_value(line)) return false;
  char text[128];
  copy_text(text, sizeof text, line);
  const size_t length = std::strlen(text);
  if (length > 0 && text[length - 1] == '\n') text[length - 1] = '\0';
  if (text[0] == '\0') return false;
  copy_text(out, 128, text);
  return true;
}

bool parse_number(const char* line, int* out) {
  if (!is_number(line)) return false;
  *out = std::atoi(line);
  return true;
}

bool parse_id_pair(const char* line, unsigned long* vendor, unsigned long* device) {
  if (no_value(line) || std::strlen(line) <= 9) return false;
  if (vendor != nullptr) *vendor = gpudb::str_to_hex(line[6], line[7], line[8], line[9]);
  if (device != nullptr) *device = gpudb::str_to_hex(line[2], line[3], line[4], line[5]);
  return true;
}

bool parse_bus(const char* line, unsigned long* bus) {
  if (no_value(line) || std::strlen(line) <= 3) return false;
  *bus = gpudb::str_to_hex2(line[2], line[3]);
  return true;
}

unsigned long parse_count(const char* line) { return static_cast<unsigned long>(std::atoi(line)); }

bool parse_memory_temperature(const char* line, int* celsius) {
  if (line[0] == 'N' || !is_number(line)) return false;
  *celsius = std::atoi(line);
  return true;
}

}  // namespace nv_smi_answer
