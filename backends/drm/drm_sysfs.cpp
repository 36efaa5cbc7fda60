#include "backends/drm/drm_sysfs.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "io/text_file.h"

namespace drm_sysfs {

bool read_first_line(const char* path, char* line, int size) {
  if (size < 2) return false;
  return text_file::read_first_line(path, line, static_cast<size_t>(size));
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

namespace drm_sysfs {

bool parse_unsigned(const char* line, unsigned long long* value) {
  while (*line == ' ' || *line == '\t') ++line;
  if (*line < '0' || *line > '9') return false;
  unsigned long long v = 0;
  for (; *line >= '0' && *line <= '9'; ++line) {
    const unsigned digit = static_cast<unsigned>(*line - '0');
    if (v > (ULLONG_MAX - digit) / 10) return false;
    v = v * 10 + digit;
  }
  *value = v;
  return true;
}

bool read_unsigned(const char* path, unsigned long long* value) {
  char line[kLineSize];
  return read_first_line(path, line, sizeof line) && parse_unsigned(line, value);
}

}  // namespace drm_sysfs
