#include "backends/drm/drm_sysfs.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "plugin/text_file.h"

namespace drm_sysfs {

namespace {

// True when every conversion of `format` is a plain %d or %s.
bool only_d_and_s(const char* format) {
  for (const char* c = std::strchr(format, '%'); c != nullptr; c = std::strchr(c + 2, '%')) {
    if (c[1] != 'd' && c[1] != 's') return false;
  }
  return true;
}

// Appends `text` at path[*at], cut where the path buffer ends (its last
// byte stays the terminator), as vsnprintf cuts.
void append(char* path, size_t* at, const char* text) {
  while (*text != '\0' && *at + 1 < static_cast<size_t>(kPathSize)) path[(*at)++] = *text++;
}

void append_int(char* path, size_t* at, int value) {
  char digits[12];
  char* end = digits + sizeof digits;
  char* p = end;
  *--p = '\0';
  unsigned int magnitude = value < 0 ? 0u - static_cast<unsigned int>(value) : value;
  do {
    *--p = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  if (value < 0) *--p = '-';
  append(path, at, p);
}

}  // namespace

// The readers' paths hold only %d and %s, which are written here directly:
// vsnprintf would cost about as much as the rest of a value's read.
void format_path(char* path, const char* format, ...) {
  std::memset(path, 0, kPathSize);
  va_list args;
  va_start(args, format);
  if (!only_d_and_s(format)) {
    std::vsnprintf(path, kPathSize, format, args);
    va_end(args);
    return;
  }
  size_t at = 0;
  for (const char* c = format; *c != '\0' && at + 1 < static_cast<size_t>(kPathSize); ++c) {
    if (*c != '%') {
      path[at++] = *c;
    } else if (*++c == 'd') {
      append_int(path, &at, va_arg(args, int));
    } else {
      const char* text = va_arg(args, const char*);
      append(path, &at, text != nullptr ? text : "(null)");
    }
  }
  va_end(args);
}

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
