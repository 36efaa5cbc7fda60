// Readers that ask command-line tools instead of sysfs: lspci for the
// display adapters (counted in the order lspci lists them) and the old AMD
// aticonfig tool (and /proc/ati) for the core temperature and the BIOS part
// number. Start-up and refresh do not use them; they remain for machines
// where the sysfs paths are missing. Each runs its command line and parses
// the answer with legacy_parse.
#pragma once

namespace zev {
class Plugin;
}

namespace legacy_backend {

// The lines "lspci | grep VGA" prints (0 when lspci fails).
bool count_display_adapters(unsigned long* count);
// The vendor and device ids of the display adapter at `index` (0-based);
// either output may be null.
bool read_pci_codes(unsigned long index, unsigned long* vendor, unsigned long* device);
// Its revision: two lower-case hex digits, no terminator written.
bool read_pci_revision(unsigned long index, char* revision);
// Its name as lspci prints it (at most 127 characters, with the newline).
bool read_adapter_name(unsigned long index, char* name);

// Whether aticonfig reports a temperature for `adapter`.
bool has_core_temperature(unsigned long adapter);
// The core temperature in whole degrees; the popen outcome is traced through
// `tracer`.
bool read_core_temperature(unsigned long adapter, float* celsius, zev::Plugin* tracer);
// The BIOS part number of /proc/ati/<adapter>/biosversion (128 bytes).
bool read_bios_string(unsigned long adapter, char* text);

}  // namespace legacy_backend
