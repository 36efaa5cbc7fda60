// Refresh of the NVML GPUs: the periodic refresh of one GPU that
// update_dynamic_data() runs first for each, and two on-demand refreshes of
// one GPU (power, PCIe throughput; per-process utilisation, which the
// periodic refresh reads too, is in nvml_processes.cpp). The on-demand ones
// need the library that nvml_start() loaded; without it they do nothing and
// report false.
//
// A failed read leaves its float as it was and puts -1 into the matching raw
// field, so that a reader can tell a stale value from a fresh failure.
#include <cstring>

#include "backends/nvidia/nvidia_backend.h"
#include "io/copy_text.h"
#include "record/record_writes.h"

namespace {

// A PCIe counter that could not be read.
constexpr uint32_t kPcieUnknown = 0xFFFFFFFFu;

// Fans refreshed at most per GPU.
constexpr uint64_t kMaxRefreshedFans = 32;

using namespace gpu_record;

// The text of a throttle-reason mask. Masks are compared whole: a GPU held
// back for two reasons at once (idle and power-capped, 5) is "Unknown".
const char* throttle_reason_text(unsigned long long mask) {
  switch (mask) {
    case 0: return "None";
    case 1: return "GPU Idle";
    case 2: return "Applications Clocks Setting";
    case 4: return "Software Power Cap";
    case 8: return "Hardware Slowdown";
    case 16: return "Sync Boost";
    case 32: return "Software Thermal Slowdown";
    case 64: return "Hardware Thermal Slowdown";
    case 128: return "Hardware Power Brake Slowdown";
    case 256: return "Display Clock Setting";
    default: return "Unknown";
  }
}

// Total energy (mJ) or -1.0 when it cannot be read.
float read_energy(const NvmlEntryPoints& api, nvml::Device device) {
  unsigned long long millijoules = 0;
  if (nvml_call(api.nvmlDeviceGetTotalEnergyConsumption, device, &millijoules) != nvml::kSuccess) {
    return -1.0f;
  }
  return static_cast<float>(millijoules);
}

// Enforced power limit (mW) or -1.0 when it cannot be read.
float read_enforced_limit(const NvmlEntryPoints& api, nvml::Device device) {
  unsigned int milliwatts = 0;
  if (nvml_call(api.nvmlDeviceGetEnforcedPowerLimit, device, &milliwatts) != nvml::kSuccess) {
    return -1.0f;
  }
  return static_cast<float>(milliwatts);
}

// Every fan of a multi-fan board moves, where the first design refreshed
// only the first fan's percentage and never an RPM: the fans after the
// first through the per-fan entry point, and each fan's RPM where the
// library has an RPM entry point. A fan whose read fails keeps its values.
// A board claiming more fans than any has gets its first kMaxRefreshedFans
// refreshed.
void refresh_other_fans(const NvmlEntryPoints& api, zev::GPU* gpu, nvml::Device device) {
  if (gpu->fans == nullptr) return;
  const uint64_t count = gpu->num_fans < kMaxRefreshedFans ? gpu->num_fans : kMaxRefreshedFans;
  if (api.nvmlDeviceGetFanSpeed_v2 != nullptr) {
    for (unsigned int f = 1; f < count; ++f) {
      unsigned int percent = 0;
      if (api.nvmlDeviceGetFanSpeed_v2(device, f, &percent) == nvml::kSuccess) {
        gpu->fans[f].speed_percent = static_cast<float>(percent);
      }
    }
  }
  if (api.nvmlDeviceGetFanSpeedRPM == nullptr && api.nvmlDeviceGetFanSpeedRPM_v2 == nullptr) return;
  for (unsigned int f = 0; f < count; ++f) nvml_read_fan_rpm(api, device, f, &gpu->fans[f].rpm);
}

}  // namespace

namespace nvidia_backend {

void nvml_refresh(const NvmlState& state, zev::GPU* gpu) {
  const NvmlEntryPoints& api = state.api;
  nvml::Device device = static_cast<nvml::Device>(gpu->nvml_device);

  unsigned int celsius = 0;
  if (nvml_call(api.nvmlDeviceGetTemperature, device, nvml::kTemperatureGpu, &celsius) ==
      nvml::kSuccess) {
    gpu->nvml_raw[kRawTemperature] = static_cast<int32_t>(celsius);
    store_temperature_reading(gpu, kCoreTemperature, static_cast<float>(celsius));
  } else {
    gpu->nvml_raw[kRawTemperature] = -1;
  }

  // The first fan through the single-fan entry point, also on boards
  // discovery set up with several fans; the others follow below.
  unsigned int percent = 0;
  if (nvml_call(api.nvmlDeviceGetFanSpeed, device, &percent) == nvml::kSuccess) {
    gpu->nvml_raw[kRawFanPercent] = static_cast<int32_t>(percent);
    if (gpu->fans != nullptr) gpu->fans[0].speed_percent = static_cast<float>(percent);
  } else {
    gpu->nvml_raw[kRawFanPercent] = -1;
  }
  refresh_other_fans(api, gpu, device);

  // One clock variable for the two maximum and the two current clocks.
  unsigned int mhz = 0xFFFFFFFFu;
  if (nvml_call(api.nvmlDeviceGetMaxClockInfo, device, nvml::kClockSm, &mhz) == nvml::kSuccess) {
    gpu->core_clock.max_clock = static_cast<float>(mhz);
    gpu->core_clock.reported_max_clock = static_cast<float>(mhz);
  } else {
    gpu->core_clock.max_clock = -1.0f;
  }
  if (nvml_call(api.nvmlDeviceGetMaxClockInfo, device, nvml::kClockMem, &mhz) == nvml::kSuccess) {
    gpu->memory_clock.max_clock = static_cast<float>(mhz);
    gpu->memory_clock.reported_max_clock = static_cast<float>(mhz);
  } else {
    gpu->memory_clock.max_clock = -1.0f;
  }
  if (nvml_call(api.nvmlDeviceGetClock, device, nvml::kClockSm, nvml::kClockIdCurrent, &mhz) ==
      nvml::kSuccess) {
    gpu->nvml_raw[kRawCoreClock] = static_cast<int32_t>(mhz);
    store_clock_value(&gpu->core_clock, static_cast<float>(mhz));
  }
  if (nvml_call(api.nvmlDeviceGetClock, device, nvml::kClockMem, nvml::kClockIdCurrent, &mhz) ==
      nvml::kSuccess) {
    gpu->nvml_raw[kRawMemoryClock] = static_cast<int32_t>(mhz);
    store_clock_value(&gpu->memory_clock, static_cast<float>(mhz));
  }

  unsigned int milliwatts = 0;
  if (nvml_call(api.nvmlDeviceGetPowerUsage, device, &milliwatts) == nvml::kSuccess) {
    store_nvml_power(gpu, milliwatts);
  } else {
    gpu->nvml_raw[kRawPowerMilliwatts] = -1;
  }

  gpu->total_energy = read_energy(api, device);
  gpu->power.enforced_limit = read_enforced_limit(api, device);

  if (!nvml_read_utilization(api, device, gpu)) {
    gpu->nvml_gpu_utilization = -1;
    gpu->nvml_memory_utilization = -1;
  }

  // Video memory in use; it keeps its last value when it cannot be read.
  nvml::Memory memory;
  std::memset(&memory, 0, sizeof memory);
  if (nvml_call(api.nvmlDeviceGetMemoryInfo, device, &memory) == nvml::kSuccess) {
    store_memory_reading(gpu, static_cast<int64_t>(memory.used >> 20));
  }

  // A mask that cannot be read counts as no reason at all.
  unsigned long long reasons = 0;
  if (nvml_call(api.nvmlDeviceGetCurrentClocksThrottleReasons, device, &reasons) !=
      nvml::kSuccess) {
    reasons = 0;
  }
  gpu->throttle_reasons = reasons;
  copy_text(gpu->throttle_reason_text, sizeof gpu->throttle_reason_text,
            throttle_reason_text(reasons));
}

bool nvml_refresh_power(const NvmlState& state, zev::GPU* gpu) {
  if (gpu == nullptr) return false;
  const NvmlEntryPoints& api = state.api;
  nvml::Device device = static_cast<nvml::Device>(gpu->nvml_device);

  // Unlike the periodic refresh, every entry point is tested first, and the
  // power record's running maxima move.
  if (api.nvmlDeviceGetPowerUsage != nullptr) {
    unsigned int milliwatts = 0;
    if (api.nvmlDeviceGetPowerUsage(device, &milliwatts) == nvml::kSuccess) {
      store_nvml_power(gpu, milliwatts);
      gpu->power.update_max_in_test();
    } else {
      gpu->nvml_raw[kRawPowerMilliwatts] = -1;
    }
  }
  if (api.nvmlDeviceGetTotalEnergyConsumption != nullptr) {
    gpu->total_energy = read_energy(api, device);
  }
  if (api.nvmlDeviceGetEnforcedPowerLimit == nullptr) return true;
  gpu->power.enforced_limit = read_enforced_limit(api, device);
  return true;
}

bool nvml_read_pcie_throughput(const NvmlState& state, zev::GPU* gpu) {
  const nvml::DeviceGetPcieThroughputFn get_throughput = state.api.nvmlDeviceGetPcieThroughput;
  if (gpu == nullptr || get_throughput == nullptr) return false;
  nvml::Device device = static_cast<nvml::Device>(gpu->nvml_device);

  // A counter that cannot be read (not supported, as in many virtual
  // machines) becomes 0xFFFFFFFF, "unknown". The first design left the field
  // as it was, so such a GPU showed 0 KB/s, a value it never had.
  unsigned int kilobytes_per_second = 0;
  gpu->pcie_tx_throughput =
      get_throughput(device, nvml::kPcieTxBytes, &kilobytes_per_second) == nvml::kSuccess
          ? kilobytes_per_second
          : kPcieUnknown;
  gpu->pcie_rx_throughput =
      get_throughput(device, nvml::kPcieRxBytes, &kilobytes_per_second) == nvml::kSuccess
          ? kilobytes_per_second
          : kPcieUnknown;
  return true;
}

}  // namespace nvidia_backend
