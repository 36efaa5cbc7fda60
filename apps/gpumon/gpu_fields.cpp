#include "gpu_fields.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "record/record_slots.h"

namespace {

using zev::GPU;

// A float reading as the decimal number it prints as (2619.1f is 2619.1, not
// 2619.10009765625), so that unit conversions give round values.
double decimal(float value) {
  char text[64];
  const std::to_chars_result end = std::to_chars(text, text + sizeof text, value);
  double result = value;
  std::from_chars(text, end.ptr, result);
  return result;
}

std::string hex(uint64_t value, int digits) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%0*llX", digits, static_cast<unsigned long long>(value));
  return text;
}

bool bus_known(const GPU& gpu) { return gpu_record::real_bus(gpu.bus_id); }

// The bus number: the record's, or the one of the address found for it.
long bus_number(const GpuView& v) {
  if (bus_known(*v.gpu)) return v.gpu->bus_id;
  const size_t colon = v.pci_address.find(':');
  if (colon == std::string::npos) return -1;
  return std::strtol(v.pci_address.c_str() + colon + 1, nullptr, 16);
}

// Unit counts and ids: 0 is "not known", and so is -1 stored in an unsigned field.
FieldValue count(uint64_t value) {
  return value != 0 && value != 0xFFFFFFFFu ? FieldValue::of(static_cast<double>(value))
                                            : FieldValue::unknown();
}

FieldValue hex_id(uint64_t value, int digits = 4) {
  return value != 0 ? FieldValue::of(hex(value, digits)) : FieldValue::unknown();
}

// Milliwatts (NVML's power limits) as watts; a limit of 0 is none.
FieldValue milliwatts(float value) {
  return value > 0.0f ? FieldValue::reading(value, 1000.0) : FieldValue::unknown();
}

// The thresholds are whole degrees; 0 is "not read".
FieldValue threshold(int32_t celsius) {
  return celsius > 0 ? FieldValue::of(celsius) : FieldValue::unknown();
}

// A number of the PCI address ("0000:03:00.0"; 0 domain, 1 bus, 2 device)
// as hex of `digits` digits.
FieldValue address_part(const GpuView& v, int part, int digits) {
  unsigned long parts[4] = {0, 0, 0, 0};
  if (std::sscanf(v.pci_address.c_str(), "%lx:%lx:%lx.%lx", &parts[0], &parts[1], &parts[2],
                  &parts[3]) != 4)
    return FieldValue::unknown();
  return FieldValue::of(hex(parts[part], digits));
}

const zev::gpuFanSpeed* first_fan(const GPU& gpu) {
  return gpu.fans != nullptr && gpu.num_fans > 0 ? &gpu.fans[0] : nullptr;
}

// PCIe throughput of an NVML GPU, as read_pcie_throughput() last asked it;
// 0xFFFFFFFF is a counter NVML could not read.
FieldValue pcie_throughput(const GPU& gpu, uint32_t kilobytes_per_second) {
  if (gpu.nvml_device == nullptr || kilobytes_per_second == 0xFFFFFFFFu)
    return FieldValue::unknown();
  return FieldValue::of(kilobytes_per_second);
}

// One part (current, min, max) of a temperature slot of the record.
template <gpu_record::TemperatureSlot kSlot, float zev::gpuTemperature::*kPart>
FieldValue temperature(const GpuView& v) {
  return FieldValue::reading(v.gpu->temperatures[kSlot].*kPart);
}

using gpu_record::kCoreTemperature;
using gpu_record::kMemoryTemperature;
using zev::gpuTemperature;

// The throttle reasons are read by NVML refreshes only; the text says so.
bool throttle_known(const GPU& gpu) { return gpu.throttle_reason_text[0] != '\0'; }

const std::vector<GpuField> kFields = {
    {"timestamp", nullptr, "", "when the values were read (ISO 8601, UTC)",
     [](const GpuView& v) { return FieldValue::of(v.timestamp); }},
    {"index", "index", "", "the GPU's slot in the monitor's list (what --gpu takes)",
     [](const GpuView& v) { return FieldValue::of(static_cast<double>(v.slot)); }},
    {"count", nullptr, "", "how many GPUs the monitor found",
     [](const GpuView& v) { return FieldValue::of(static_cast<double>(v.count)); }},
    {"name", "name", "", "the name shown: the board's name where known, else the device's",
     [](const GpuView& v) { return FieldValue::of(display_name(*v.gpu)); }},
    {"device_name", "device_name", "", "the device's (chip's) product name",
     [](const GpuView& v) { return FieldValue::of(v.gpu->name); }},
    {"board_name", "board_name", "", "the board's name, from the PCI sub-system ids",
     [](const GpuView& v) { return FieldValue::of(v.gpu->marketing_name); }},
    {"codename", "codename", "", "the chip's code name",
     [](const GpuView& v) { return FieldValue::of(v.gpu->codename); }},
    {"architecture", "architecture", "", "the architecture's name (NVML)",
     [](const GpuView& v) { return FieldValue::of(v.gpu->architecture); }},
    {"compute_cap", "cuda_compute_capability", "", "CUDA compute capability, MAJOR.MINOR (NVML)",
     [](const GpuView& v) {
       const int32_t* cc = v.gpu->cuda_compute_capability;
       if (cc[0] <= 0) return FieldValue::unknown();
       return FieldValue::of(std::to_string(cc[0]) + "." + std::to_string(cc[1]));
     }},
    {"pci.bus_id", "pci.address", "", "PCI address, DOMAIN:BUS:DEVICE.FUNCTION (hex)",
     [](const GpuView& v) { return FieldValue::of(v.pci_address); }},
    {"pci.bus", "pci.bus", "", "PCI bus number (hex)",
     [](const GpuView& v) {
       const long bus = bus_number(v);
       return bus >= 0 ? FieldValue::of(hex(static_cast<uint64_t>(bus), 2)) : FieldValue::unknown();
     }},
    {"pci.device_id", nullptr, "", "PCI device and vendor id, 0xDDDDVVVV as nvidia-smi writes it",
     [](const GpuView& v) {
       if (v.gpu->vendor_id == 0 && v.gpu->device_id == 0) return FieldValue::unknown();
       return FieldValue::of(hex((v.gpu->device_id << 16) | (v.gpu->vendor_id & 0xFFFF), 8));
     }},
    {"pci.sub_device_id", nullptr, "", "PCI sub-system device and vendor id, 0xDDDDVVVV",
     [](const GpuView& v) {
       if (v.gpu->subvendor_id == 0 && v.gpu->subdevice_id == 0) return FieldValue::unknown();
       return FieldValue::of(hex((v.gpu->subdevice_id << 16) | (v.gpu->subvendor_id & 0xFFFF), 8));
     }},
    {"pci.vendor", "pci.vendor_id", "", "PCI vendor id (hex)",
     [](const GpuView& v) { return hex_id(v.gpu->vendor_id); }},
    {"pci.device_id_only", "pci.device_id", "", "PCI device id alone (hex)",
     [](const GpuView& v) { return hex_id(v.gpu->device_id); }},
    {"pci.domain", nullptr, "", "PCI domain (hex), 0x0000",
     [](const GpuView& v) { return address_part(v, 0, 4); }},
    {"pci.device", nullptr, "", "the device's number on its PCI bus (hex), 0x00",
     [](const GpuView& v) { return address_part(v, 2, 2); }},
    {"pci.sub_vendor", "pci.subsystem_vendor_id", "", "PCI sub-system vendor id (hex)",
     [](const GpuView& v) { return hex_id(v.gpu->subvendor_id); }},
    {"pci.sub_device", "pci.subsystem_device_id", "", "PCI sub-system device id (hex)",
     [](const GpuView& v) { return hex_id(v.gpu->subdevice_id); }},
    {"pci.revision", "pci.revision_id", "", "PCI revision id (hex)",
     [](const GpuView& v) {
       // The record keeps 0 for "not read"; /sys tells a real revision 0x00.
       if (v.gpu->revision_id != 0) return hex_id(v.gpu->revision_id, 2);
       return v.pci_revision >= 0 ? FieldValue::of(hex(static_cast<uint64_t>(v.pci_revision), 2))
                                  : FieldValue::unknown();
     }},
    {"driver_name", "driver.name", "", "the kernel driver's name",
     [](const GpuView& v) { return FieldValue::of(v.gpu->driver_name); }},
    {"driver_version", "driver.version", "", "the driver's version",
     [](const GpuView& v) { return FieldValue::of(v.gpu->driver_version); }},
    {"vbios_version", "vbios_version", "", "the video BIOS version",
     [](const GpuView& v) { return FieldValue::of(v.gpu->vbios_version); }},
    {"monitorable", "monitorable", "", "whether any sensor of the GPU can be read",
     [](const GpuView& v) { return FieldValue::of_bool(v.gpu->monitorable); }},
    {"memory.total", "memory_total_mib", "MiB", "video memory size",
     [](const GpuView& v) {
       return v.gpu->vram_size_mb > 0 ? FieldValue::of(static_cast<double>(v.gpu->vram_size_mb))
                                      : FieldValue::unknown();
     }},
    {"memory.used", "memory_used_mib", "MiB", "video memory in use",
     [](const GpuView& v) {
       return v.gpu->vram_used_mb >= 0 ? FieldValue::of(static_cast<double>(v.gpu->vram_used_mb))
                                       : FieldValue::unknown();
     }},
    {"memory.free", nullptr, "MiB", "video memory not in use (memory.total less memory.used)",
     [](const GpuView& v) {
       const int64_t total = v.gpu->vram_size_mb, used = v.gpu->vram_used_mb;
       return total > 0 && used >= 0 && used <= total
                  ? FieldValue::of(static_cast<double>(total - used))
                  : FieldValue::unknown();
     }},
    {"memory.bus_width", "memory_bus_width_bits", "bit", "memory bus width",
     [](const GpuView& v) { return count(v.gpu->memory_bus_width); }},
    {"units.shaders", "units.shaders", "", "shader cores",
     [](const GpuView& v) { return count(v.gpu->num_shader_cores); }},
    {"units.texture", "units.texture_units", "", "texture units",
     [](const GpuView& v) { return count(v.gpu->num_texture_units); }},
    {"units.rops", "units.rops", "", "render output units",
     [](const GpuView& v) { return count(v.gpu->num_rops); }},
    {"units.multiprocessors", "units.multiprocessors", "", "streaming multiprocessors (NVML)",
     [](const GpuView& v) { return count(v.gpu->num_multiprocessors); }},
    {"power.tdp", "power_w.tdp", "W", "the board's thermal design power (GPU database)",
     [](const GpuView& v) { return count(v.gpu->tdp_w); }},
    {"power.draw", "power_w.draw", "W", "power drawn",
     [](const GpuView& v) { return FieldValue::reading(v.gpu->power.watts); }},
    {"power.limit", nullptr, "W", "the power limit in force (same as enforced.power.limit)",
     [](const GpuView& v) { return milliwatts(v.gpu->power.enforced_limit); }},
    {"enforced.power.limit", "power_w.enforced_limit", "W",
     "the power limit in force (NVML, hwmon power cap)",
     [](const GpuView& v) { return milliwatts(v.gpu->power.enforced_limit); }},
    {"power.default_limit", "power_w.default_limit", "W", "the default power limit (NVML)",
     [](const GpuView& v) { return milliwatts(v.gpu->power.default_limit); }},
    {"power.min_limit", "power_w.min_limit", "W", "the lowest power limit allowed (NVML)",
     [](const GpuView& v) { return milliwatts(v.gpu->power.limit_min); }},
    {"power.max_limit", "power_w.max_limit", "W", "the highest power limit allowed (NVML)",
     [](const GpuView& v) { return milliwatts(v.gpu->power.limit_max); }},
    {"energy", "energy_j", "J", "energy used since the driver was loaded (NVML)",
     [](const GpuView& v) {
       const float mj = v.gpu->total_energy;
       return mj > 0.0f ? FieldValue::reading(mj, 1000.0) : FieldValue::unknown();
     }},
    {"temperature.gpu", "temperature_c.core", "C", "core temperature",
     temperature<kCoreTemperature, &gpuTemperature::current>},
    {"temperature.gpu.lowest", "temperature_c.core_lowest", "C",
     "lowest core temperature since start", temperature<kCoreTemperature, &gpuTemperature::min>},
    {"temperature.gpu.highest", "temperature_c.core_highest", "C",
     "highest core temperature since start", temperature<kCoreTemperature, &gpuTemperature::max>},
    {"temperature.memory", "temperature_c.memory", "C", "memory temperature",
     temperature<kMemoryTemperature, &gpuTemperature::current>},
    {"temperature.memory.lowest", "temperature_c.memory_lowest", "C",
     "lowest memory temperature since start",
     temperature<kMemoryTemperature, &gpuTemperature::min>},
    {"temperature.memory.highest", "temperature_c.memory_highest", "C",
     "highest memory temperature since start",
     temperature<kMemoryTemperature, &gpuTemperature::max>},
    {"temperature.shutdown", "temperature_c.shutdown_threshold", "C",
     "temperature at which the GPU shuts down (NVML)",
     [](const GpuView& v) { return threshold(v.gpu->temperature_thresholds[0]); }},
    {"temperature.slowdown", "temperature_c.slowdown_threshold", "C",
     "temperature at which the GPU slows down (NVML)",
     [](const GpuView& v) { return threshold(v.gpu->temperature_thresholds[1]); }},
    {"temperature.gpu_max", "temperature_c.gpu_max_threshold", "C",
     "highest temperature for normal operation (NVML)",
     [](const GpuView& v) { return threshold(v.gpu->temperature_thresholds[2]); }},
    {"utilization.gpu", "utilization_percent.core", "%", "core usage",
     [](const GpuView& v) { return FieldValue::reading(v.gpu->core_usage[0]); }},
    {"utilization.memory", "utilization_percent.memory", "%", "memory controller usage",
     [](const GpuView& v) { return FieldValue::reading(v.gpu->memory_usage[0]); }},
    {"clocks.gr", "clock_mhz.core", "MHz", "core clock",
     [](const GpuView& v) { return FieldValue::reading(v.gpu->core_clock.current); }},
    {"clocks.mem", "clock_mhz.memory", "MHz", "memory clock",
     [](const GpuView& v) { return FieldValue::reading(v.gpu->memory_clock.current); }},
    {"clocks.max.gr", "clock_mhz.core_max", "MHz", "highest core clock of the GPU (NVML)",
     [](const GpuView& v) { return FieldValue::reading(v.gpu->core_clock.max_clock); }},
    {"clocks.max.mem", "clock_mhz.memory_max", "MHz", "highest memory clock of the GPU (NVML)",
     [](const GpuView& v) { return FieldValue::reading(v.gpu->memory_clock.max_clock); }},
    {"fan.speed", nullptr, "%", "the first fan's speed (every fan: \"fans\" in the JSON)",
     [](const GpuView& v) {
       const zev::gpuFanSpeed* fan = first_fan(*v.gpu);
       return fan != nullptr ? FieldValue::reading(fan->speed_percent) : FieldValue::unknown();
     }},
    {"fan.rpm", nullptr, "RPM", "the first fan's speed in turns a minute",
     [](const GpuView& v) {
       const zev::gpuFanSpeed* fan = first_fan(*v.gpu);
       return fan != nullptr ? FieldValue::reading(fan->rpm) : FieldValue::unknown();
     }},
    {"pcie.tx_throughput", "pcie_throughput_kb_per_s.tx", "KB/s",
     "PCIe data the GPU sends, over the last 20 ms (NVML)",
     [](const GpuView& v) { return pcie_throughput(*v.gpu, v.gpu->pcie_tx_throughput); }},
    {"pcie.rx_throughput", "pcie_throughput_kb_per_s.rx", "KB/s",
     "PCIe data the GPU receives, over the last 20 ms (NVML)",
     [](const GpuView& v) { return pcie_throughput(*v.gpu, v.gpu->pcie_rx_throughput); }},
    {"clocks_throttle_reasons.active", "throttle_reasons.active", "",
     "bit mask of the reasons the clocks are held back (NVML; read by refreshes)",
     [](const GpuView& v) {
       return throttle_known(*v.gpu) ? FieldValue::of(hex(v.gpu->throttle_reasons, 16))
                                     : FieldValue::unknown();
     }},
    {"clocks_throttle_reasons.text", "throttle_reasons.text", "",
     "the reason the clocks are held back, in words (NVML; read by refreshes)",
     [](const GpuView& v) { return FieldValue::of(v.gpu->throttle_reason_text); }},
};

}  // namespace

FieldValue FieldValue::of(double number) {
  FieldValue value;
  value.kind = kNumber;
  value.number = number;
  return value;
}

FieldValue FieldValue::reading(float value, double divisor) {
  if (value == -1.0f || !std::isfinite(value)) return unknown();
  return of(decimal(value) / divisor);
}

FieldValue FieldValue::of(const std::string& text) {
  FieldValue value;
  if (text.empty()) return value;
  value.kind = kText;
  value.text = text;
  return value;
}

FieldValue FieldValue::of_bool(bool flag) {
  FieldValue value;
  value.kind = kBool;
  value.flag = flag;
  return value;
}

const std::vector<GpuField>& gpu_fields() { return kFields; }

const GpuField* find_query_field(const std::string& name) {
  for (const GpuField& field : kFields) {
    if (field.query != nullptr && name == field.query) return &field;
  }
  return nullptr;
}

bool shows_pcie_throughput(const std::vector<const GpuField*>& fields) {
  for (const GpuField* field : fields) {
    if (field != nullptr && std::string(field->query).compare(0, 5, "pcie.") == 0) return true;
  }
  return false;
}

void read_pcie_throughput(zev::GpuMonitor* monitor) {
  for (unsigned long i = 0; i < monitor->nvml_get_num_gpus(); ++i) {
    monitor->nvml_get_pcie_throughput(i);
  }
}

const char* display_name(const zev::GPU& gpu) {
  return gpu.use_marketing_name ? gpu.marketing_name : gpu.name;
}
