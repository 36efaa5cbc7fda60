#include "io/sysfs_path.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace sysfs_path {

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

}  // namespace sysfs_path
