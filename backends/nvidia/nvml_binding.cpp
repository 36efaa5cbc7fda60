// Resolution of the NVML entry-point table, symbol by symbol, in table order.
#include "backends/nvidia/nvml_binding.h"

#include <dlfcn.h>

#include <cstddef>
#include <cstring>

#include "record/record_writes.h"

namespace {

// A table member by its offset (no address to relocate) and the symbol it is
// resolved from.
struct Slot {
  const char* symbol;
  size_t offset;
};

#define ENTRY(name) \
  { #name, offsetof(NvmlEntryPoints, name) }

const Slot kSlots[kNvmlEntryPointCount] = {
    ENTRY(nvmlInit),
    ENTRY(nvmlInit_v2),
    ENTRY(nvmlShutdown),
    ENTRY(nvmlSystemGetNVMLVersion),
    ENTRY(nvmlSystemGetProcessName),
    ENTRY(nvmlDeviceGetCount),
    ENTRY(nvmlDeviceGetCount_v2),
    ENTRY(nvmlDeviceGetHandleByIndex),
    ENTRY(nvmlDeviceGetName),
    ENTRY(nvmlDeviceGetPciInfo),
    ENTRY(nvmlSystemGetDriverVersion),
    ENTRY(nvmlDeviceGetBrand),
    ENTRY(nvmlDeviceGetSerial),
    ENTRY(nvmlDeviceGetMemoryInfo),
    ENTRY(nvmlDeviceGetCudaComputeCapability),
    ENTRY(nvmlDeviceGetComputeRunningProcesses),
    ENTRY(nvmlDeviceGetGraphicsRunningProcesses),
    // The slot after the running-process queries is looked up under the
    // name "dlsym". It is never called; the lookup is kept as it is.
    {"dlsym", offsetof(NvmlEntryPoints, dlsym_slot)},
    ENTRY(nvmlDeviceGetMaxClockInfo),
    ENTRY(nvmlDeviceGetClock),
    ENTRY(nvmlDeviceGetMaxCustomerBoostClock),
    ENTRY(nvmlDeviceGetFanSpeed),
    ENTRY(nvmlDeviceGetTemperature),
    ENTRY(nvmlDeviceGetTemperatureThreshold),
    ENTRY(nvmlDeviceGetPowerUsage),
    ENTRY(nvmlDeviceGetTotalEnergyConsumption),
    ENTRY(nvmlDeviceGetEnforcedPowerLimit),
    ENTRY(nvmlDeviceGetPowerManagementDefaultLimit),
    ENTRY(nvmlDeviceGetPowerManagementLimitConstraints),
    ENTRY(nvmlDeviceGetPowerManagementLimit),
    ENTRY(nvmlDeviceGetPowerState),
    ENTRY(nvmlDeviceGetPcieThroughput),
    ENTRY(nvmlDeviceGetCurrentClocksThrottleReasons),
    ENTRY(nvmlDeviceGetUtilizationRates),
    ENTRY(nvmlDeviceGetProcessUtilization),
    ENTRY(nvmlDeviceGetPlatformInfo),
    ENTRY(nvmlDeviceGetAttributes_v2),
    ENTRY(nvmlDeviceGetFanSpeed_v2),
    ENTRY(nvmlDeviceGetFanSpeedRPM_v2),
    ENTRY(nvmlDeviceGetNumFans),
    ENTRY(nvmlDeviceGetNumGpuCores),
    ENTRY(nvmlDeviceGetMemoryBusWidth),
    ENTRY(nvmlDeviceGetArchitecture),
    ENTRY(nvmlDeviceGetFanSpeedRPM),
    ENTRY(nvmlDeviceGetVbiosVersion),
};

#undef ENTRY

}  // namespace

void nvml_resolve_entry_points(void* library, NvmlEntryPoints* api) {
  // Pointer-to-function and void* share size and representation on the
  // platforms this plug-in is built for (POSIX requires it of dlsym).
  unsigned char* table = reinterpret_cast<unsigned char*>(api);
  for (const Slot& slot : kSlots) {
    void* symbol = dlsym(library, slot.symbol);
    std::memcpy(table + slot.offset, &symbol, sizeof symbol);
  }
}

bool nvml_read_fan_rpm(const NvmlEntryPoints& api, nvml::Device device, unsigned int fan,
                       float* rpm) {
  const nvml::DeviceGetFanSpeedRpmFn get_rpm = api.nvmlDeviceGetFanSpeedRPM != nullptr
                                                   ? api.nvmlDeviceGetFanSpeedRPM
                                                   : api.nvmlDeviceGetFanSpeedRPM_v2;
  if (get_rpm == nullptr) return false;
  nvml::FanSpeedInfo info;
  info.version = nvml::kFanSpeedInfoVersion;
  info.fan = fan;
  info.speed = 0;
  if (get_rpm(device, &info) != nvml::kSuccess) return false;
  *rpm = static_cast<float>(info.speed);
  return true;
}

bool nvml_read_utilization(const NvmlEntryPoints& api, nvml::Device device, zev::GPU* gpu) {
  nvml::Utilization utilization;
  std::memset(&utilization, 0, sizeof utilization);
  if (nvml_call(api.nvmlDeviceGetUtilizationRates, device, &utilization) != nvml::kSuccess) {
    return false;
  }
  gpu->nvml_gpu_utilization = static_cast<int32_t>(utilization.gpu);
  gpu->nvml_memory_utilization = static_cast<int32_t>(utilization.memory);
  gpu_record::store_usage_value(gpu->core_usage, static_cast<float>(utilization.gpu));
  gpu_record::store_usage_value(gpu->memory_usage, static_cast<float>(utilization.memory));
  return true;
}
