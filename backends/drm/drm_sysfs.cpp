#include "backends/drm/drm_sysfs.h"

#include "backends/drm/drm_parse.h"

namespace drm_sysfs {

bool read_unsigned(const char* path, unsigned long long* value) {
  char line[kLineSize];
  return read_first_line(path, line, sizeof line) && drm_parse::parse_unsigned(line, value);
}

}  // namespace drm_sysfs
