#include "backends/drm/drm_sysfs.h"

#include "backends/drm/drm_parse.h"
#include "io/text_file.h"

namespace drm_sysfs {

bool read_first_line(const char* path, char* line, int size) {
  if (size < 2) return false;
  return text_file::read_first_line(path, line, static_cast<size_t>(size));
}

bool read_unsigned(const char* path, unsigned long long* value) {
  char line[kLineSize];
  return read_first_line(path, line, sizeof line) && drm_parse::parse_unsigned(line, value);
}

}  // namespace drm_sysfs
