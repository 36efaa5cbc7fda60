// Which GPUs gpumon shows (--gpu), and the views of them it shows.
#pragma once

#include <string>
#include <vector>

#include "gpu_fields.h"
#include "zev/gpu_monitor.h"

// Whether a --gpu selector is well formed: a slot number or a PCI address.
bool valid_gpu_selector(const std::string& selector);

// The PCI address of every GPU of the monitor, by slot ("" where unknown).
std::vector<std::string> gpu_pci_addresses(zev::GpuMonitor* monitor);

// The slots the selectors pick, in the monitor's order and each once; every
// slot when there are no selectors. A selector is a slot number or a PCI
// address (the domain may be left out). False, with *error naming it, when a
// selector matches no GPU.
bool select_gpus(const std::vector<std::string>& selectors,
                 const std::vector<std::string>& addresses, std::vector<unsigned long>* slots,
                 std::string* error);

// The GPUs of the given slots as they are now, stamped with `timestamp`.
std::vector<GpuView> gpu_views(zev::GpuMonitor* monitor, const std::vector<unsigned long>& slots,
                               const std::vector<std::string>& addresses,
                               const std::string& timestamp);
