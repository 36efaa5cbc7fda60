// Paths of /sys files, built without stdio: card, hwmon and sensor numbers
// and names put into a fixed pattern.
#pragma once

namespace sysfs_path {

// Paths are built in a cleared buffer of this size.
constexpr int kPathSize = 128;

// Card, hwmon and sensor numbers are printed as decimal ints, so a number
// that does not fit an int prints as whatever the conversion gives.
inline int as_path_number(unsigned long n) { return static_cast<int>(n); }

// Builds a path into a cleared buffer of kPathSize bytes.
void format_path(char* path, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace sysfs_path
