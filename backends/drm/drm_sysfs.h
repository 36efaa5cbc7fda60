// Fetching for the DRM readers: every sysfs value is read by building its
// path, opening the file, reading its first line into a cleared fixed buffer
// and closing the file again (open, read, close: no stdio, no heap, and a
// file that would block reads as empty). Nothing is kept between calls; what
// the line says is drm_parse's.
#pragma once

#include "io/sysfs_path.h"
#include "io/text_file.h"

namespace drm_sysfs {

using sysfs_path::as_path_number;
using sysfs_path::format_path;
using sysfs_path::kPathSize;

// First lines of value files are read into a cleared buffer of this size.
constexpr int kLineSize = 256;
// The hwmon "name" file and the vendor probe read at most 127 characters.
constexpr int kShortLineSize = 128;

// The first line of `path` into a cleared buffer (io/text_file.h).
using text_file::read_first_line;

// Reads `path` and parses its first line with drm_parse::parse_unsigned.
bool read_unsigned(const char* path, unsigned long long* value);

}  // namespace drm_sysfs
