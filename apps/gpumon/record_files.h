// The files of a machine that the monitor reads, copied into a machine
// folder at the same paths (under sys/ and proc/), with the symbolic links on
// the way kept as links: /sys/class/drm/card1 stays a link to the card's
// folder under /sys/devices, and the card's device link a link to its PCI
// device, so that the copy lays out as the machine did.
#pragma once

#include <string>
#include <vector>

namespace record {

// Copies what the monitor reads of the DRM cards, their hwmon and GT
// frequency folders, the PCI display devices, the Raspberry Pi's V3D files,
// /proc/cpuinfo (without a "Serial" line), /proc/meminfo and the kernel
// release into `folder`. Files that cannot be read are left out. Returns
// the paths copied (the real ones, "/sys/..."), in order.
std::vector<std::string> copy_machine_files(const std::string& folder);

}  // namespace record
