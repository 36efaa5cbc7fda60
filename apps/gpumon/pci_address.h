// Where a GPU sits on the PCI bus. The monitor's records keep the bus number
// at most; gpumon finds the whole address in /sys.
#pragma once

#include <string>

#include "zev/gpu.h"

struct PciAddress {
  unsigned long domain = 0, bus = 0, device = 0, function = 0;
  bool operator==(const PciAddress& o) const {
    return domain == o.domain && bus == o.bus && device == o.device && function == o.function;
  }
};

// Reads "DOMAIN:BUS:DEVICE.FUNCTION" or "BUS:DEVICE.FUNCTION" (hex, either
// case; a domain of up to 8 digits, as nvidia-smi writes it); false when the
// text is not one.
bool parse_pci_address(const std::string& text, PciAddress* address);

// The address of a GPU record as Linux names the device ("0000:03:00.0"):
// the one NVML gave the record, the device of the record's DRM card, or else
// the one display device on
// the record's bus (any bus when the record has none) with its vendor and
// device ids, among the DRM cards and /sys/bus/pci/devices. "" when /sys
// does not tell.
std::string find_pci_address(const zev::GPU& gpu);

// The revision of the PCI device at an address ("0000:03:00.0"), read from
// /sys; -1 when it cannot be read.
long pci_revision(const std::string& address);
