// Numbered entries of a sysfs folder: "card<N>" in /sys/class/drm,
// "hwmon<K>" in a device's hwmon folder. Numbers are global and sparse on
// real machines (card1, card9, card17 on an eight-GPU server; hwmon8 for a
// GPU when drives and DIMMs took the lower numbers), so the folder is listed
// once instead of trying fixed numbers.
#pragma once

#include <vector>

namespace drm_entries {

// The numbers N of the entries named exactly `prefix` followed by decimal
// digits (no sign, no suffix: "card0-DP-1" and "renderD128" are no cards), in
// ascending order. Empty when the folder cannot be listed.
std::vector<int> numbered(const char* folder, const char* prefix);

}  // namespace drm_entries
