// NVML discovery: loads NVIDIA's management library at run time, starts it,
// counts its devices, and fills the record the core makes for each with the
// board's static description (identity, architecture, core counts, limits)
// and a first reading of every sensor. Afterwards the NVML refresh
// (nvml_dynamic.cpp) is the only source of fresh data for these records.
#include <dlfcn.h>

#include <cstring>
#include <new>

#include "backends/nvidia/nvidia_backend.h"
#include "backends/nvidia/nvidia_discovery_common.h"
#include "io/copy_text.h"
#include "record/record_writes.h"

namespace {

using namespace gpu_record;

// NVML architecture numbers 2..10; 0, 1, the unused 11 and 12, and anything
// newer have no name here.
const char* architecture_name(nvml::DeviceArchitecture architecture) {
  switch (architecture) {
    case 2: return "Kepler";
    case 3: return "Maxwell";
    case 4: return "Pascal";
    case 5: return "Volta";
    case 6: return "Turing";
    case 7: return "Ampere";
    case 8: return "Ada Lovelace";
    case 9: return "Hopper";
    case 10: return "Blackwell";
    default: return "";
  }
}

// Identity, units and architecture of one device.
void read_description(const NvmlEntryPoints& api, zev::GPU* gpu, nvml::Device device) {
  if (api.nvmlDeviceGetArchitecture != nullptr) {
    nvml::DeviceArchitecture architecture = 0;
    if (api.nvmlDeviceGetArchitecture(device, &architecture) == nvml::kSuccess) {
      copy_text(gpu->architecture, sizeof gpu->architecture, architecture_name(architecture));
    }
  }

  if (api.nvmlDeviceGetNumGpuCores != nullptr) {
    unsigned int cores = 0;
    if (api.nvmlDeviceGetNumGpuCores(device, &cores) == nvml::kSuccess && cores != 0 &&
        cores != gpu->nvml_num_cores) {
      gpu->nvml_num_cores = cores;
      gpu->num_shader_cores = cores;
    }
  }

  if (api.nvmlDeviceGetMemoryBusWidth != nullptr) {
    unsigned int width = 0;
    if (api.nvmlDeviceGetMemoryBusWidth(device, &width) == nvml::kSuccess && width != 0 &&
        width != gpu->memory_bus_width) {
      gpu->memory_bus_width = width;
    }
  }

  if (api.nvmlDeviceGetAttributes_v2 != nullptr) {
    nvml::DeviceAttributes attributes;
    std::memset(&attributes, 0, sizeof attributes);
    if (api.nvmlDeviceGetAttributes_v2(device, &attributes) == nvml::kSuccess) {
      gpu->num_multiprocessors = attributes.multiprocessorCount;
    }
  }

  int major = 0;
  int minor = 0;
  nvml_call(api.nvmlDeviceGetCudaComputeCapability, device, &major, &minor);
  gpu->cuda_compute_capability[0] = major;
  gpu->cuda_compute_capability[1] = minor;
}

// Core temperature and the three thresholds. The four calls share one
// output variable: a threshold whose call fails stores whatever the read
// before it left there.
void read_temperatures(const NvmlEntryPoints& api, zev::GPU* gpu, nvml::Device device) {
  unsigned int celsius = 0;
  if (nvml_call(api.nvmlDeviceGetTemperature, device, nvml::kTemperatureGpu, &celsius) ==
      nvml::kSuccess) {
    gpu->sensor_available[kTemperatureFlag] = 1;
    store_temperature_reading(gpu, kCoreTemperature, static_cast<float>(celsius));
  }
  const nvml::TemperatureThresholds types[3] = {nvml::kThresholdShutdown, nvml::kThresholdSlowdown,
                                                nvml::kThresholdGpuMax};
  for (int k = 0; k < 3; ++k) {
    nvml_call(api.nvmlDeviceGetTemperatureThreshold, device, types[k], &celsius);
    gpu->temperature_thresholds[k] = static_cast<int32_t>(celsius);
  }
}

// Fans: every fan through the per-fan entry points when the library has
// them, else the single-fan reading.
void read_fans(const NvmlEntryPoints& api, zev::GPU* gpu, nvml::Device device) {
  if (api.nvmlDeviceGetNumFans != nullptr && api.nvmlDeviceGetFanSpeed_v2 != nullptr) {
    unsigned int count = 0;
    api.nvmlDeviceGetNumFans(device, &count);
    if (count == 0) return;  // a board without fans; the single-fan call is not tried

    zev::gpuFanSpeed* fans = new (std::nothrow) zev::gpuFanSpeed[count];
    if (fans == nullptr) return;  // a count no board has; nothing to show for it
    gpu->num_fans = count;
    gpu->fans = fans;

    // One speed variable for all fans, set once: a fan whose read fails
    // shows what the fan before it read (or 0xFFFFFFFF for the first).
    unsigned int percent = 0xFFFFFFFFu;
    for (unsigned int f = 0; f < count; ++f) {
      api.nvmlDeviceGetFanSpeed_v2(device, f, &percent);
      if (f == 0) gpu->nvml_raw[kRawFanPercent] = static_cast<int32_t>(percent);
      gpu->fans[f].speed_percent = static_cast<float>(percent);

      // Through the RPM entry point of real libraries (driver 570 and later)
      // too, not only the _v2 name, which no real library exports.
      nvml_read_fan_rpm(api, device, f, &gpu->fans[f].rpm);
    }
    gpu->sensor_available[kFanFlag] = 1;
    return;
  }

  unsigned int percent = 0;
  if (nvml_call(api.nvmlDeviceGetFanSpeed, device, &percent) != nvml::kSuccess) return;
  gpu->nvml_raw[kRawFanPercent] = static_cast<int32_t>(percent);
  if (gpu->fans == nullptr) {
    store_fan_percent(single_fan(gpu), static_cast<float>(percent));
    gpu->sensor_available[kFanFlag] = 1;
  }
}

// Maximum and current clocks. Graphics, SM and memory are read in turn into
// one variable; the SM value is the core clock. Results are not checked.
void read_clocks(const NvmlEntryPoints& api, zev::GPU* gpu, nvml::Device device) {
  unsigned int mhz = 0;
  nvml_call(api.nvmlDeviceGetMaxClockInfo, device, nvml::kClockGraphics, &mhz);
  nvml_call(api.nvmlDeviceGetMaxClockInfo, device, nvml::kClockSm, &mhz);
  gpu->core_clock.max_clock = static_cast<float>(mhz);
  nvml_call(api.nvmlDeviceGetMaxClockInfo, device, nvml::kClockMem, &mhz);
  gpu->memory_clock.max_clock = static_cast<float>(mhz);

  unsigned int current = 0;
  nvml_call(api.nvmlDeviceGetClock, device, nvml::kClockGraphics, nvml::kClockIdCurrent, &current);
  nvml_call(api.nvmlDeviceGetClock, device, nvml::kClockSm, nvml::kClockIdCurrent, &current);
  store_clock_value(&gpu->core_clock, static_cast<float>(current));
  nvml_call(api.nvmlDeviceGetClock, device, nvml::kClockMem, nvml::kClockIdCurrent, &current);
  store_clock_value(&gpu->memory_clock, static_cast<float>(current));
}

// Utilization, power, energy and the power limits.
void read_load_and_power(const NvmlEntryPoints& api, zev::GPU* gpu, nvml::Device device) {
  if (nvml_read_utilization(api, device, gpu)) gpu->sensor_available[kUsageFlag] = 1;

  unsigned int milliwatts = 0;
  if (nvml_call(api.nvmlDeviceGetPowerUsage, device, &milliwatts) == nvml::kSuccess) {
    store_nvml_power(gpu, milliwatts);
    gpu->sensor_available[kPowerFlag] = 1;
  }

  unsigned long long millijoules = 0;
  if (nvml_call(api.nvmlDeviceGetTotalEnergyConsumption, device, &millijoules) == nvml::kSuccess) {
    gpu->total_energy = static_cast<float>(millijoules);
  }

  unsigned int limit = 0;
  if (nvml_call(api.nvmlDeviceGetEnforcedPowerLimit, device, &limit) == nvml::kSuccess) {
    gpu->power.enforced_limit = static_cast<float>(limit);
  }
  limit = 0;
  if (nvml_call(api.nvmlDeviceGetPowerManagementDefaultLimit, device, &limit) == nvml::kSuccess) {
    gpu->power.default_limit = static_cast<float>(limit);
  }
  unsigned int min_limit = 0;
  unsigned int max_limit = 0;
  if (nvml_call(api.nvmlDeviceGetPowerManagementLimitConstraints, device, &min_limit, &max_limit) ==
      nvml::kSuccess) {
    gpu->power.limit_min = static_cast<float>(min_limit);
    gpu->power.limit_max = static_cast<float>(max_limit);
  }
}

// What NVML tells of the board beyond the first design's reads: the
// sub-system ids (so that the board is named as on the nvidia-smi path), the
// PCI address, the driver and VBIOS versions and the video memory. The first
// design read the driver version and dropped it, resolved the memory query
// without calling it and left the rest unasked; each value here fills a
// field that path left empty, and a failing read leaves it empty.
void read_board(const NvmlEntryPoints& api, zev::GPU* gpu, nvml::Device device,
                const nvml::PciInfo& pci, const char* driver_version) {
  gpu->subvendor_id = pci.pciSubSystemId & 0xFFFFu;
  gpu->subdevice_id = pci.pciSubSystemId >> 16;
  char bus_id[sizeof pci.busId + 1];
  std::memcpy(bus_id, pci.busId, sizeof pci.busId);
  bus_id[sizeof pci.busId] = '\0';  // the library's text, whole or not
  copy_text(gpu->pci_bus_id, sizeof gpu->pci_bus_id, bus_id);
  copy_text(gpu->driver_version, sizeof gpu->driver_version, driver_version);

  char vbios[128];
  std::memset(vbios, 0, sizeof vbios);
  if (nvml_call(api.nvmlDeviceGetVbiosVersion, device, vbios, 127u) == nvml::kSuccess) {
    copy_text(gpu->vbios_version, sizeof gpu->vbios_version, vbios);
  }

  nvml::Memory memory;
  std::memset(&memory, 0, sizeof memory);
  if (nvml_call(api.nvmlDeviceGetMemoryInfo, device, &memory) == nvml::kSuccess) {
    gpu->vram_size_mb = static_cast<int64_t>(memory.total >> 20);
    gpu->vram_used_mb = static_cast<int64_t>(memory.used >> 20);
  }
}

}  // namespace

namespace nvidia_backend {

NvmlState::NvmlState() : api() {
  for (uint32_t& capacity : process_capacity) capacity = 0;
}

void nvml_read_device(NvmlState* state, zev::Plugin* tracer, unsigned int index,
                      const char* driver_version, zev::GPU* gpu, unsigned long slot) {
  const NvmlEntryPoints& api = state->api;

  nvml::Device device = nullptr;
  nvml_call(api.nvmlDeviceGetHandleByIndex, index, &device);
  nvml::PciInfo pci;
  std::memset(&pci, 0, sizeof pci);
  nvml_call(api.nvmlDeviceGetPciInfo, device, &pci);
  const unsigned long vendor = pci.pciDeviceId & 0xFFFFu;
  const unsigned long device_id = pci.pciDeviceId >> 16;

  gpu->nvidia_gpu_index = static_cast<int32_t>(index);
  // From here on the sensor dispatch leaves this record to the NVML refresh.
  gpu->nvml_device = device;

  char name[64];
  std::memset(name, 0, sizeof name);
  nvml_call(api.nvmlDeviceGetName, device, name, static_cast<unsigned int>(sizeof name));
  if (name[0] != '\0') copy_text(gpu->name, sizeof gpu->name, name);
  gpu->vendor_id = vendor;
  gpu->device_id = device_id;
  gpu->bus_id = static_cast<int32_t>(pci.bus);
  read_board(api, gpu, device, pci, driver_version);

  read_description(api, gpu, device);
  read_temperatures(api, gpu, device);
  read_fans(api, gpu, device);
  read_clocks(api, gpu, device);
  read_load_and_power(api, gpu, device);
  // The processes using the GPU, as every refresh reads them.
  if (slot != kNotListed) nvml_read_processes(state, gpu, slot);

  if (gpu->sensor_available[kTemperatureFlag] || gpu->sensor_available[kUsageFlag]) {
    gpu->monitorable = true;
  }

  nvidia_name_from_database(gpu, ShaderCountSource::kDriverFirst);
  check_rop_count(tracer, gpu, index);
}

bool nvml_start(void** library, NvmlState* state, NvmlDevices* found) {
  found->count = 0;
  std::memset(found->driver_version, 0, sizeof found->driver_version);
  *library = dlopen("libnvidia-ml.so", RTLD_LAZY);
  if (*library == nullptr) *library = dlopen("libnvidia-ml.so.1", RTLD_LAZY);
  if (*library == nullptr) return false;
  nvml_resolve_entry_points(*library, &state->api);

  const NvmlEntryPoints& api = state->api;
  // Only start-up and shut-down are required; the library stays loaded when
  // they are missing.
  if ((api.nvmlInit == nullptr && api.nvmlInit_v2 == nullptr) || api.nvmlShutdown == nullptr) {
    return false;
  }
  const nvml::Return started = api.nvmlInit_v2 != nullptr ? api.nvmlInit_v2() : api.nvmlInit();
  if (started != nvml::kSuccess) return false;  // neither shut down nor unloaded

  // The NVML version is read and dropped; the driver version goes into each
  // GPU's record (the first design dropped it too).
  char text[128];
  std::memset(text, 0, sizeof text);
  nvml_call(api.nvmlSystemGetNVMLVersion, text, 127u);
  nvml_call(api.nvmlSystemGetDriverVersion, found->driver_version, 127u);

  unsigned int count = 0;
  if (api.nvmlDeviceGetCount_v2 != nullptr) {
    api.nvmlDeviceGetCount_v2(&count);
  } else if (api.nvmlDeviceGetCount != nullptr) {
    api.nvmlDeviceGetCount(&count);
  }
  if (count == 0) {
    nvml_stop(library, *state);
    return false;
  }
  found->count = count;
  return true;
}

void nvml_stop(void** library, const NvmlState& state) {
  if (*library == nullptr) return;
  nvml_call(state.api.nvmlShutdown);
  dlclose(*library);
  *library = nullptr;
}

}  // namespace nvidia_backend
