// Resolution of the NVML entry-point table, symbol by symbol, in table order.
#include "backends/nvidia/nvml_binding.h"

#include <dlfcn.h>

#include <cstring>

NvmlEntryPoints g_nvml = {};

namespace {

struct Slot {
  const char* symbol;
  void* target;  // the table member, written with the bytes of dlsym's answer
};

// Pointer-to-function and void* share size and representation on the
// platforms this plug-in is built for (POSIX requires it of dlsym).
template <typename Fn>
void* slot_of(Fn* entry) {
  static_assert(sizeof(Fn) == sizeof(void*), "entry points are plain pointers");
  return entry;
}

const Slot* slots() {
  static const Slot table[kNvmlEntryPointCount] = {
      {"nvmlInit", slot_of(&g_nvml.nvmlInit)},
      {"nvmlInit_v2", slot_of(&g_nvml.nvmlInit_v2)},
      {"nvmlShutdown", slot_of(&g_nvml.nvmlShutdown)},
      {"nvmlSystemGetNVMLVersion", slot_of(&g_nvml.nvmlSystemGetNVMLVersion)},
      {"nvmlSystemGetProcessName", slot_of(&g_nvml.nvmlSystemGetProcessName)},
      {"nvmlDeviceGetCount", slot_of(&g_nvml.nvmlDeviceGetCount)},
      {"nvmlDeviceGetCount_v2", slot_of(&g_nvml.nvmlDeviceGetCount_v2)},
      {"nvmlDeviceGetHandleByIndex", slot_of(&g_nvml.nvmlDeviceGetHandleByIndex)},
      {"nvmlDeviceGetName", slot_of(&g_nvml.nvmlDeviceGetName)},
      {"nvmlDeviceGetPciInfo", slot_of(&g_nvml.nvmlDeviceGetPciInfo)},
      {"nvmlSystemGetDriverVersion", slot_of(&g_nvml.nvmlSystemGetDriverVersion)},
      {"nvmlDeviceGetBrand", slot_of(&g_nvml.nvmlDeviceGetBrand)},
      {"nvmlDeviceGetSerial", slot_of(&g_nvml.nvmlDeviceGetSerial)},
      {"nvmlDeviceGetMemoryInfo", slot_of(&g_nvml.nvmlDeviceGetMemoryInfo)},
      {"nvmlDeviceGetCudaComputeCapability", slot_of(&g_nvml.nvmlDeviceGetCudaComputeCapability)},
      {"nvmlDeviceGetComputeRunningProcesses",
       slot_of(&g_nvml.nvmlDeviceGetComputeRunningProcesses)},
      {"nvmlDeviceGetGraphicsRunningProcesses",
       slot_of(&g_nvml.nvmlDeviceGetGraphicsRunningProcesses)},
      // The slot after the running-process queries is looked up under the
      // name "dlsym". It is never called; the lookup is kept as it is.
      {"dlsym", &g_nvml.dlsym_slot},
      {"nvmlDeviceGetMaxClockInfo", slot_of(&g_nvml.nvmlDeviceGetMaxClockInfo)},
      {"nvmlDeviceGetClock", slot_of(&g_nvml.nvmlDeviceGetClock)},
      {"nvmlDeviceGetMaxCustomerBoostClock", slot_of(&g_nvml.nvmlDeviceGetMaxCustomerBoostClock)},
      {"nvmlDeviceGetFanSpeed", slot_of(&g_nvml.nvmlDeviceGetFanSpeed)},
      {"nvmlDeviceGetTemperature", slot_of(&g_nvml.nvmlDeviceGetTemperature)},
      {"nvmlDeviceGetTemperatureThreshold", slot_of(&g_nvml.nvmlDeviceGetTemperatureThreshold)},
      {"nvmlDeviceGetPowerUsage", slot_of(&g_nvml.nvmlDeviceGetPowerUsage)},
      {"nvmlDeviceGetTotalEnergyConsumption", slot_of(&g_nvml.nvmlDeviceGetTotalEnergyConsumption)},
      {"nvmlDeviceGetEnforcedPowerLimit", slot_of(&g_nvml.nvmlDeviceGetEnforcedPowerLimit)},
      {"nvmlDeviceGetPowerManagementDefaultLimit",
       slot_of(&g_nvml.nvmlDeviceGetPowerManagementDefaultLimit)},
      {"nvmlDeviceGetPowerManagementLimitConstraints",
       slot_of(&g_nvml.nvmlDeviceGetPowerManagementLimitConstraints)},
      {"nvmlDeviceGetPowerManagementLimit", slot_of(&g_nvml.nvmlDeviceGetPowerManagementLimit)},
      {"nvmlDeviceGetPowerState", slot_of(&g_nvml.nvmlDeviceGetPowerState)},
      {"nvmlDeviceGetPcieThroughput", slot_of(&g_nvml.nvmlDeviceGetPcieThroughput)},
      {"nvmlDeviceGetCurrentClocksThrottleReasons",
       slot_of(&g_nvml.nvmlDeviceGetCurrentClocksThrottleReasons)},
      {"nvmlDeviceGetUtilizationRates", slot_of(&g_nvml.nvmlDeviceGetUtilizationRates)},
      {"nvmlDeviceGetProcessUtilization", slot_of(&g_nvml.nvmlDeviceGetProcessUtilization)},
      {"nvmlDeviceGetPlatformInfo", slot_of(&g_nvml.nvmlDeviceGetPlatformInfo)},
      {"nvmlDeviceGetAttributes_v2", slot_of(&g_nvml.nvmlDeviceGetAttributes_v2)},
      {"nvmlDeviceGetFanSpeed_v2", slot_of(&g_nvml.nvmlDeviceGetFanSpeed_v2)},
      {"nvmlDeviceGetFanSpeedRPM_v2", slot_of(&g_nvml.nvmlDeviceGetFanSpeedRPM_v2)},
      {"nvmlDeviceGetNumFans", slot_of(&g_nvml.nvmlDeviceGetNumFans)},
      {"nvmlDeviceGetNumGpuCores", slot_of(&g_nvml.nvmlDeviceGetNumGpuCores)},
      {"nvmlDeviceGetMemoryBusWidth", slot_of(&g_nvml.nvmlDeviceGetMemoryBusWidth)},
      {"nvmlDeviceGetArchitecture", slot_of(&g_nvml.nvmlDeviceGetArchitecture)},
      {"nvmlDeviceGetFanSpeedRPM", slot_of(&g_nvml.nvmlDeviceGetFanSpeedRPM)},
      {"nvmlDeviceGetVbiosVersion", slot_of(&g_nvml.nvmlDeviceGetVbiosVersion)},
  };
  return table;
}

}  // namespace

const char* nvml_entry_point_name(unsigned long slot) {
  return slot < kNvmlEntryPointCount ? slots()[slot].symbol : nullptr;
}

void nvml_resolve_entry_points(void* library) {
  const Slot* table = slots();
  for (unsigned long i = 0; i < kNvmlEntryPointCount; ++i) {
    void* symbol = dlsym(library, table[i].symbol);
    std::memcpy(table[i].target, &symbol, sizeof symbol);
  }
}

bool nvml_read_fan_rpm(nvml::Device device, unsigned int fan, float* rpm) {
  const nvml::DeviceGetFanSpeedRpmFn get_rpm = g_nvml.nvmlDeviceGetFanSpeedRPM != nullptr
                                                   ? g_nvml.nvmlDeviceGetFanSpeedRPM
                                                   : g_nvml.nvmlDeviceGetFanSpeedRPM_v2;
  if (get_rpm == nullptr) return false;
  nvml::FanSpeedInfo info;
  info.version = nvml::kFanSpeedInfoVersion;
  info.fan = fan;
  info.speed = 0;
  if (get_rpm(device, &info) != nvml::kSuccess) return false;
  *rpm = static_cast<float>(info.speed);
  return true;
}
