// The NVML entry-point table: the library's functions, filled with dlsym
// each time the back-end finds the library (it lives in the back-end's state,
// nvidia_backend.h). A symbol the library lacks leaves its pointer null.
// Discovery writes the table; the refresh operations read it afterwards.
#pragma once

#include "backends/nvidia/nvml_types.h"
#include "zev/gpu.h"

struct NvmlEntryPoints {
  nvml::InitFn nvmlInit;
  nvml::InitFn nvmlInit_v2;
  nvml::ShutdownFn nvmlShutdown;
  nvml::SystemGetVersionFn nvmlSystemGetNVMLVersion;
  nvml::SystemGetProcessNameFn nvmlSystemGetProcessName;
  nvml::DeviceGetCountFn nvmlDeviceGetCount;
  nvml::DeviceGetCountFn nvmlDeviceGetCount_v2;
  nvml::DeviceGetHandleByIndexFn nvmlDeviceGetHandleByIndex;
  nvml::DeviceGetNameFn nvmlDeviceGetName;
  nvml::DeviceGetPciInfoFn nvmlDeviceGetPciInfo;
  nvml::SystemGetVersionFn nvmlSystemGetDriverVersion;
  nvml::DeviceGetBrandFn nvmlDeviceGetBrand;
  nvml::DeviceGetSerialFn nvmlDeviceGetSerial;
  nvml::DeviceGetMemoryInfoFn nvmlDeviceGetMemoryInfo;
  nvml::DeviceGetCudaComputeCapabilityFn nvmlDeviceGetCudaComputeCapability;
  nvml::DeviceGetRunningProcessesFn nvmlDeviceGetComputeRunningProcesses;
  nvml::DeviceGetRunningProcessesFn nvmlDeviceGetGraphicsRunningProcesses;
  // Filled by looking up "dlsym" in the library; never called.
  void* dlsym_slot;
  nvml::DeviceGetClockInfoFn nvmlDeviceGetMaxClockInfo;
  nvml::DeviceGetClockFn nvmlDeviceGetClock;
  nvml::DeviceGetClockInfoFn nvmlDeviceGetMaxCustomerBoostClock;
  nvml::DeviceGetUIntFn nvmlDeviceGetFanSpeed;
  nvml::DeviceGetTemperatureFn nvmlDeviceGetTemperature;
  nvml::DeviceGetTemperatureThresholdFn nvmlDeviceGetTemperatureThreshold;
  nvml::DeviceGetUIntFn nvmlDeviceGetPowerUsage;
  nvml::DeviceGetEnergyFn nvmlDeviceGetTotalEnergyConsumption;
  nvml::DeviceGetUIntFn nvmlDeviceGetEnforcedPowerLimit;
  nvml::DeviceGetUIntFn nvmlDeviceGetPowerManagementDefaultLimit;
  nvml::DeviceGetLimitConstraintsFn nvmlDeviceGetPowerManagementLimitConstraints;
  nvml::DeviceGetUIntFn nvmlDeviceGetPowerManagementLimit;
  nvml::DeviceGetPowerStateFn nvmlDeviceGetPowerState;
  nvml::DeviceGetPcieThroughputFn nvmlDeviceGetPcieThroughput;
  nvml::DeviceGetThrottleReasonsFn nvmlDeviceGetCurrentClocksThrottleReasons;
  nvml::DeviceGetUtilizationRatesFn nvmlDeviceGetUtilizationRates;
  nvml::DeviceGetProcessUtilizationFn nvmlDeviceGetProcessUtilization;
  nvml::DeviceGetPlatformInfoFn nvmlDeviceGetPlatformInfo;
  nvml::DeviceGetAttributesFn nvmlDeviceGetAttributes_v2;
  nvml::DeviceGetFanSpeedV2Fn nvmlDeviceGetFanSpeed_v2;
  nvml::DeviceGetFanSpeedRpmFn nvmlDeviceGetFanSpeedRPM_v2;
  nvml::DeviceGetUIntFn nvmlDeviceGetNumFans;
  nvml::DeviceGetUIntFn nvmlDeviceGetNumGpuCores;
  nvml::DeviceGetUIntFn nvmlDeviceGetMemoryBusWidth;
  nvml::DeviceGetArchitectureFn nvmlDeviceGetArchitecture;
  // Looked up after the entries above, which keep their order: the fan RPM
  // entry point real libraries export (driver 570 and later; none exports
  // the _v2 name above) and the VBIOS version.
  nvml::DeviceGetFanSpeedRpmFn nvmlDeviceGetFanSpeedRPM;
  nvml::DeviceGetTextFn nvmlDeviceGetVbiosVersion;
};

// Number of table entries.
constexpr unsigned long kNvmlEntryPointCount = 45;
static_assert(sizeof(NvmlEntryPoints) == kNvmlEntryPointCount * sizeof(void*),
              "entry points are plain pointers");

// Resolves every entry of `api` from `library`, in table order.
void nvml_resolve_entry_points(void* library, NvmlEntryPoints* api);

// Reads the RPM of fan `fan` through the RPM entry point real libraries
// export (driver 570 and later), else the _v2 name the first design looked
// up, which no real library exports. False, *rpm untouched, when the library
// has neither or the read fails.
bool nvml_read_fan_rpm(const NvmlEntryPoints& api, nvml::Device device, unsigned int fan,
                       float* rpm);

// The GPU and memory-controller utilisation into the record (the raw
// percentages and the usages' current values), as discovery and the refresh
// read it. False, the record untouched, when it cannot be read.
bool nvml_read_utilization(const NvmlEntryPoints& api, nvml::Device device, zev::GPU* gpu);

// Calls an entry point that is used without a presence test. NVML libraries
// that export nvmlInit and nvmlShutdown export these too; should one be
// missing all the same, the call fails like any NVML call would, with
// NVML_ERROR_FUNCTION_NOT_FOUND, and writes nothing.
template <typename Fn, typename... Args>
nvml::Return nvml_call(Fn fn, Args... args) {
  return fn != nullptr ? fn(args...) : nvml::kErrorFunctionNotFound;
}
