#include "backends/legacy/legacy_parse.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "gpudb/gpu_db.h"
#include "io/copy_text.h"

namespace legacy_parse {

namespace {

constexpr unsigned long kNameSize = 128;

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

}  // namespace

bool pci_codes(const char* line, unsigned long* vendor, unsigned long* device) {
  if (std::strlen(line) <= 9) return false;
  if (vendor != nullptr) *vendor = gpudb::str_to_hex(line[1], line[2], line[3], line[4]);
  if (device != nullptr) *device = gpudb::str_to_hex(line[6], line[7], line[8], line[9]);
  return true;
}

bool pci_revision(const char* line, char* revision) {
  const size_t length = std::strcspn(line, "\n");
  if (std::strlen(line) < 3 || length < 6) return false;
  revision[0] = lower(line[4]);
  revision[1] = lower(line[5]);
  return true;
}

bool adapter_name(const char* line, char* name) {
  if (line[0] == '\0') return false;
  copy_text(name, kNameSize, line);
  return true;
}

bool says_command_not_found(const char* line) {
  return std::strstr(line, "command not found") != nullptr;
}

bool temperature_celsius(const char* line, float* celsius) {
  const int value = std::atoi(line);
  if (value <= 0) return false;
  *celsius = static_cast<float>(value);
  return true;
}

}  // namespace legacy_parse
