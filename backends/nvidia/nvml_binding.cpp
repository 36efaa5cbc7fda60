// Resolution of the NVML entry-point table, symbol by symbol, in table order.
#include "backends/nvidia/nvml_binding.h"

#include <dlfcn.h>

#include <cstddef>
#include <cstring>

#include "record/record_writes.h"

namespace {

// Every entry of the table in lookup order: ENTRY(name) fills the member
// of that name from the symbol of that name; NAMED(symbol, member) fills
// `member` from `symbol`. The slot after the running-process queries is
// looked up under the name "dlsym"; it is never called, and the lookup is
// kept as it is.
// clang-format off
#define NVML_ENTRY_POINTS(ENTRY, NAMED) \
  ENTRY(nvmlInit) \
  ENTRY(nvmlInit_v2) \
  ENTRY(nvmlShutdown) \
  ENTRY(nvmlSystemGetNVMLVersion) \
  ENTRY(nvmlSystemGetProcessName) \
  ENTRY(nvmlDeviceGetCount) \
  ENTRY(nvmlDeviceGetCount_v2) \
  ENTRY(nvmlDeviceGetHandleByIndex) \
  ENTRY(nvmlDeviceGetName) \
  ENTRY(nvmlDeviceGetPciInfo) \
  ENTRY(nvmlSystemGetDriverVersion) \
  ENTRY(nvmlDeviceGetBrand) \
  ENTRY(nvmlDeviceGetSerial) \
  ENTRY(nvmlDeviceGetMemoryInfo) \
  ENTRY(nvmlDeviceGetCudaComputeCapability) \
  ENTRY(nvmlDeviceGetComputeRunningProcesses) \
  ENTRY(nvmlDeviceGetGraphicsRunningProcesses) \
  NAMED(dlsym, dlsym_slot) \
  ENTRY(nvmlDeviceGetMaxClockInfo) \
  ENTRY(nvmlDeviceGetClock) \
  ENTRY(nvmlDeviceGetMaxCustomerBoostClock) \
  ENTRY(nvmlDeviceGetFanSpeed) \
  ENTRY(nvmlDeviceGetTemperature) \
  ENTRY(nvmlDeviceGetTemperatureThreshold) \
  ENTRY(nvmlDeviceGetPowerUsage) \
  ENTRY(nvmlDeviceGetTotalEnergyConsumption) \
  ENTRY(nvmlDeviceGetEnforcedPowerLimit) \
  ENTRY(nvmlDeviceGetPowerManagementDefaultLimit) \
  ENTRY(nvmlDeviceGetPowerManagementLimitConstraints) \
  ENTRY(nvmlDeviceGetPowerManagementLimit) \
  ENTRY(nvmlDeviceGetPowerState) \
  ENTRY(nvmlDeviceGetPcieThroughput) \
  ENTRY(nvmlDeviceGetCurrentClocksThrottleReasons) \
  ENTRY(nvmlDeviceGetUtilizationRates) \
  ENTRY(nvmlDeviceGetProcessUtilization) \
  ENTRY(nvmlDeviceGetPlatformInfo) \
  ENTRY(nvmlDeviceGetAttributes_v2) \
  ENTRY(nvmlDeviceGetFanSpeed_v2) \
  ENTRY(nvmlDeviceGetFanSpeedRPM_v2) \
  ENTRY(nvmlDeviceGetNumFans) \
  ENTRY(nvmlDeviceGetNumGpuCores) \
  ENTRY(nvmlDeviceGetMemoryBusWidth) \
  ENTRY(nvmlDeviceGetArchitecture) \
  ENTRY(nvmlDeviceGetFanSpeedRPM) \
  ENTRY(nvmlDeviceGetVbiosVersion)
// clang-format on

// The symbols, one after the other, each ended by its NUL, and the offset of
// the member each fills: plain data, nothing for the loader to relocate.
#define SYMBOL(name) #name "\0"
#define NAMED_SYMBOL(symbol, member) #symbol "\0"
const char kSymbols[] = NVML_ENTRY_POINTS(SYMBOL, NAMED_SYMBOL);

#define OFFSET(name) offsetof(NvmlEntryPoints, name),
#define NAMED_OFFSET(symbol, member) offsetof(NvmlEntryPoints, member),
const unsigned short kOffsets[] = {NVML_ENTRY_POINTS(OFFSET, NAMED_OFFSET)};
static_assert(sizeof kOffsets / sizeof kOffsets[0] == kNvmlEntryPointCount,
              "one symbol per entry point");

}  // namespace

void nvml_resolve_entry_points(void* library, NvmlEntryPoints* api) {
  // Pointer-to-function and void* share size and representation on the
  // platforms this plug-in is built for (POSIX requires it of dlsym).
  unsigned char* table = reinterpret_cast<unsigned char*>(api);
  const char* symbol = kSymbols;
  for (unsigned short offset : kOffsets) {
    void* address = dlsym(library, symbol);
    std::memcpy(table + offset, &address, sizeof address);
    symbol += std::strlen(symbol) + 1;
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
