#include "pci_address.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "io/numbered_entries.h"
#include "record/record_slots.h"

namespace fs = std::filesystem;

namespace {

// Reads one hex field of exactly `digits` digits (at most `digits`, at least
// one, when `up_to`), ending at `end`.
bool hex_field(const std::string& text, size_t* at, size_t digits, bool up_to, char end,
               unsigned long* value) {
  size_t n = 0;
  while (*at + n < text.size() && std::isxdigit(static_cast<unsigned char>(text[*at + n]))) ++n;
  if (n == 0 || n > digits || (!up_to && n != digits)) return false;
  if (end != '\0' ? (*at + n >= text.size() || text[*at + n] != end) : *at + n != text.size())
    return false;
  *value = std::strtoul(text.substr(*at, n).c_str(), nullptr, 16);
  *at += n + (end != '\0' ? 1 : 0);
  return true;
}

struct Device {
  std::string address;
  unsigned long vendor = 0, device = 0;
  long card = -1;  // DRM card number, -1 when seen in /sys/bus/pci/devices
};

unsigned long read_hex_file(const fs::path& path) {
  std::ifstream in(path);
  std::string text;
  in >> text;
  return std::strtoul(text.c_str(), nullptr, 16);
}

// "card<N>" -> N; -1 for any other name (connectors, render nodes).
long card_number(const fs::path& entry) {
  return numbered_entries::number_after(entry.filename().c_str(), "card");
}

void add_device(const fs::path& dir, long card, std::vector<Device>* devices) {
  std::error_code ec;
  const fs::path real = fs::canonical(dir, ec);
  PciAddress parsed;
  if (ec || !parse_pci_address(real.filename().string(), &parsed)) return;
  // Display controllers only (class 0x03....) among all PCI devices.
  if (card < 0 && (read_hex_file(real / "class") >> 16) != 0x03) return;
  devices->push_back({real.filename().string(), read_hex_file(real / "vendor"),
                      read_hex_file(real / "device"), card});
}

std::vector<Device> display_devices() {
  std::vector<Device> devices;
  std::error_code ec;
  for (const fs::directory_entry& e : fs::directory_iterator("/sys/class/drm", ec)) {
    const long card = card_number(e.path());
    if (card >= 0) add_device(e.path() / "device", card, &devices);
  }
  for (const fs::directory_entry& e : fs::directory_iterator("/sys/bus/pci/devices", ec)) {
    add_device(e.path(), -1, &devices);
  }
  return devices;
}

}  // namespace

bool parse_pci_address(const std::string& text, PciAddress* address) {
  PciAddress a;
  size_t at = 0;
  const size_t colons = static_cast<size_t>(std::count(text.begin(), text.end(), ':'));
  if (colons == 2 && !hex_field(text, &at, 8, true, ':', &a.domain)) return false;
  if (colons != 1 && colons != 2) return false;
  if (!hex_field(text, &at, 2, true, ':', &a.bus) ||
      !hex_field(text, &at, 2, true, '.', &a.device) ||
      !hex_field(text, &at, 1, false, '\0', &a.function))
    return false;
  if (a.device > 0x1F || a.function > 7) return false;
  *address = a;
  return true;
}

std::string find_pci_address(const zev::GPU& gpu) {
  // NVML tells the address itself ("0000:18:00.0", or with an 8-digit
  // domain); it is written as Linux names the device.
  PciAddress given;
  if (parse_pci_address(std::string(gpu.pci_bus_id, strnlen(gpu.pci_bus_id, sizeof gpu.pci_bus_id)),
                        &given)) {
    char text[32];
    std::snprintf(text, sizeof text, "%04lx:%02lx:%02lx.%lx", given.domain, given.bus, given.device,
                  given.function);
    return text;
  }
  const std::vector<Device> devices = display_devices();
  if (gpu.drm_card_index >= 0) {
    for (const Device& d : devices)
      if (d.card == gpu.drm_card_index) return d.address;
    return "";
  }
  if (gpu.vendor_id == 0 && gpu.device_id == 0) return "";
  const bool bus_known = gpu_record::real_bus(gpu.bus_id);
  std::string found;
  for (const Device& d : devices) {
    PciAddress a;
    parse_pci_address(d.address, &a);
    if (d.vendor != gpu.vendor_id || d.device != gpu.device_id) continue;
    if (bus_known && a.bus != static_cast<unsigned long>(gpu.bus_id)) continue;
    if (!found.empty() && found != d.address) return "";  // more than one: no telling which
    found = d.address;
  }
  return found;
}

long pci_revision(const std::string& address) {
  PciAddress parsed;
  if (address.empty() || !parse_pci_address(address, &parsed)) return -1;
  // The device's folder: in the PCI device list, or behind a DRM card.
  fs::path folder = "/sys/bus/pci/devices/" + address;
  std::error_code ec;
  for (const fs::directory_entry& e : fs::directory_iterator("/sys/class/drm", ec)) {
    if (card_number(e.path()) < 0) continue;
    const fs::path real = fs::canonical(e.path() / "device", ec);
    if (!ec && real.filename() == address) folder = real;
  }
  std::ifstream in(folder / "revision");
  std::string text;
  if (!(in >> text) || text.size() < 3 || text.compare(0, 2, "0x") != 0) return -1;
  char* end = nullptr;
  const long revision = std::strtol(text.c_str() + 2, &end, 16);
  return *end == '\0' && revision >= 0 && revision <= 0xFF ? revision : -1;
}
