// Numbered entries of a sysfs folder: "card<N>" in /sys/class/drm,
// "hwmon<K>" in a device's hwmon folder. Numbers are global and sparse on
// real machines (card1, card9, card17 on an eight-GPU server; hwmon8 for a
// GPU when drives and DIMMs took the lower numbers), so the folder is listed
// once instead of trying fixed numbers.
#pragma once

#include <vector>

namespace numbered_entries {

// N for a name that is exactly `prefix` followed by decimal digits (no sign,
// no leading zero, no suffix: "card0-DP-1", "renderD128" and "card01" are no
// cards); -1 for any other name and for a number beyond an int.
int number_after(const char* name, const char* prefix);

// The numbers N of the entries of `folder` named `prefix`N, in ascending
// order. Empty when the folder cannot be listed.
std::vector<int> list(const char* folder, const char* prefix);

}  // namespace numbered_entries
