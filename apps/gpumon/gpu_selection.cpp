#include "gpu_selection.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "pci_address.h"

namespace {

bool all_digits(const std::string& text) {
  return !text.empty() && text.size() <= 9 && std::all_of(text.begin(), text.end(), [](char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
  });
}

bool matches(const std::string& selector, unsigned long slot, const std::string& address) {
  if (all_digits(selector)) return std::strtoul(selector.c_str(), nullptr, 10) == slot;
  PciAddress wanted, have;
  if (!parse_pci_address(selector, &wanted) || !parse_pci_address(address, &have)) return false;
  // "03:00.0" leaves the domain out: any domain.
  if (std::count(selector.begin(), selector.end(), ':') == 1) wanted.domain = have.domain;
  return wanted == have;
}

}  // namespace

bool valid_gpu_selector(const std::string& selector) {
  PciAddress address;
  return all_digits(selector) || parse_pci_address(selector, &address);
}

std::vector<std::string> gpu_pci_addresses(zev::GpuMonitor* monitor) {
  std::vector<std::string> addresses;
  for (unsigned long i = 0; i < monitor->get_num_gpus(); ++i) {
    const zev::GPU* gpu = monitor->get_gpu(i);
    addresses.push_back(gpu != nullptr ? find_pci_address(*gpu) : "");
  }
  return addresses;
}

bool select_gpus(const std::vector<std::string>& selectors,
                 const std::vector<std::string>& addresses, std::vector<unsigned long>* slots,
                 std::string* error) {
  std::vector<bool> picked(addresses.size(), selectors.empty());
  for (const std::string& selector : selectors) {
    bool found = false;
    for (unsigned long slot = 0; slot < addresses.size(); ++slot) {
      if (!matches(selector, slot, addresses[slot])) continue;
      picked[slot] = found = true;
    }
    if (!found) {
      std::string known;
      for (unsigned long slot = 0; slot < addresses.size(); ++slot) {
        known += (slot == 0 ? "" : ", ") + std::to_string(slot);
        if (!addresses[slot].empty()) known += " at " + addresses[slot];
      }
      *error = "no GPU '" + selector + "' (" +
               (known.empty() ? "the monitor found none" : "the GPUs are " + known) + ")";
      return false;
    }
  }
  slots->clear();
  for (unsigned long slot = 0; slot < picked.size(); ++slot)
    if (picked[slot]) slots->push_back(slot);
  return true;
}

std::vector<GpuView> gpu_views(zev::GpuMonitor* monitor, const std::vector<unsigned long>& slots,
                               const std::vector<std::string>& addresses,
                               const std::string& timestamp) {
  std::vector<GpuView> views;
  for (unsigned long slot : slots) {
    const zev::GPU* gpu = monitor->get_gpu(slot);
    if (gpu == nullptr) continue;
    const std::string address = slot < addresses.size() ? addresses[slot] : "";
    views.push_back(
        {slot, monitor->get_num_gpus(), gpu, address, pci_revision(address), timestamp});
  }
  return views;
}
