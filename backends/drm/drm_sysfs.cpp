#include "backends/drm/drm_sysfs.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace drm_sysfs {

void format_path(char* path, const char* format, ...) {
  std::memset(path, 0, kPathSize);
  va_list args;
  va_start(args, format);
  std::vsnprintf(path, kPathSize, format, args);
  va_end(args);
}

bool read_first_line(const char* path, char* line, int size) {
  FILE* file = std::fopen(path, "r");
  if (file == nullptr) return false;
  std::memset(line, 0, static_cast<size_t>(size));
  const bool got = std::fgets(line, size, file) != nullptr;
  std::fclose(file);
  return got;
}

void cut_newline(char* line) {
  const size_t length = std::strlen(line);
  if (length > 0 && line[length - 1] == '\n') line[length - 1] = '\0';
}

int scaled_decimal(const char* line, long long divisor) {
  const long long value = std::strtoll(line, nullptr, 10) / divisor;
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

}  // namespace drm_sysfs
