// NVML's types and entry-point signatures, declared here in NVIDIA's
// published layouts. The library is loaded at run time and never linked, so
// no NVIDIA header is needed; only the members this monitor reads are named
// for their use, the others keep their place in the layout.
#pragma once

#include <cstddef>

namespace nvml {

// nvmlReturn_t
using Return = int;
constexpr Return kSuccess = 0;
constexpr Return kErrorUninitialized = 1;
constexpr Return kErrorInvalidArgument = 2;
constexpr Return kErrorNotSupported = 3;
constexpr Return kErrorNotFound = 6;
constexpr Return kErrorInsufficientSize = 7;
constexpr Return kErrorFunctionNotFound = 13;
constexpr Return kErrorGpuIsLost = 15;

// nvmlDevice_t: an opaque handle owned by the library.
struct DeviceOpaque;
using Device = DeviceOpaque*;

// C enumerations of the API; passed as 32-bit values.
using TemperatureSensors = unsigned int;
constexpr TemperatureSensors kTemperatureGpu = 0;

using TemperatureThresholds = unsigned int;
constexpr TemperatureThresholds kThresholdShutdown = 0;
constexpr TemperatureThresholds kThresholdSlowdown = 1;
constexpr TemperatureThresholds kThresholdMemMax = 2;
constexpr TemperatureThresholds kThresholdGpuMax = 3;

using ClockType = unsigned int;
constexpr ClockType kClockGraphics = 0;
constexpr ClockType kClockSm = 1;
constexpr ClockType kClockMem = 2;
constexpr ClockType kClockVideo = 3;

using ClockId = unsigned int;
constexpr ClockId kClockIdCurrent = 0;

using PcieUtilCounter = unsigned int;
constexpr PcieUtilCounter kPcieTxBytes = 0;
constexpr PcieUtilCounter kPcieRxBytes = 1;

using DeviceArchitecture = unsigned int;
using BrandType = unsigned int;
using Pstates = unsigned int;

// nvmlPciInfo_t in its original layout, the one nvmlDeviceGetPciInfo fills.
struct PciInfo {
  char busId[16];
  unsigned int domain;
  unsigned int bus;
  unsigned int device;
  unsigned int pciDeviceId;     // device << 16 | vendor
  unsigned int pciSubSystemId;  // subdevice << 16 | subvendor
  unsigned int reserved0;
  unsigned int reserved1;
  unsigned int reserved2;
  unsigned int reserved3;
};
static_assert(sizeof(PciInfo) == 52, "nvmlPciInfo_t (original layout) is 52 bytes");

// nvmlUtilization_t
struct Utilization {
  unsigned int gpu;
  unsigned int memory;
};
static_assert(sizeof(Utilization) == 8, "nvmlUtilization_t is 8 bytes");

// nvmlMemory_t
struct Memory {
  unsigned long long total;
  unsigned long long free;
  unsigned long long used;
};
static_assert(sizeof(Memory) == 24, "nvmlMemory_t is 24 bytes");

// nvmlDeviceAttributes_t
struct DeviceAttributes {
  unsigned int multiprocessorCount;
  unsigned int sharedCopyEngineCount;
  unsigned int sharedDecoderCount;
  unsigned int sharedEncoderCount;
  unsigned int sharedJpegCount;
  unsigned int sharedOfaCount;
  unsigned int gpuInstanceSliceCount;
  unsigned int computeInstanceSliceCount;
  unsigned long long memorySizeMB;
};
static_assert(sizeof(DeviceAttributes) == 40, "nvmlDeviceAttributes_t is 40 bytes");

// nvmlFanSpeedInfo_t, version 1.
struct FanSpeedInfo {
  unsigned int version;
  unsigned int fan;
  unsigned int speed;
};
static_assert(sizeof(FanSpeedInfo) == 12, "nvmlFanSpeedInfo_t is 12 bytes");
constexpr unsigned int kFanSpeedInfoVersion = 0x0100000C;  // NVML_STRUCT_VERSION(FanSpeedInfo, 1)

// nvmlProcessUtilizationSample_t
struct ProcessUtilizationSample {
  unsigned int pid;
  unsigned long long timeStamp;  // microseconds
  unsigned int smUtil;
  unsigned int memUtil;
  unsigned int encUtil;
  unsigned int decUtil;
};
static_assert(sizeof(ProcessUtilizationSample) == 32, "nvmlProcessUtilizationSample_t is 32 bytes");
static_assert(offsetof(ProcessUtilizationSample, timeStamp) == 8, "4 bytes of padding after pid");

// nvmlProcessInfo_v1_t
struct ProcessInfo {
  unsigned int pid;
  unsigned long long usedGpuMemory;
};
static_assert(sizeof(ProcessInfo) == 16, "nvmlProcessInfo_v1_t is 16 bytes");

// nvmlPlatformInfo_t is versioned and never read here.
struct PlatformInfo;

// Entry points, in the order of the binding table.
using InitFn = Return (*)();
using ShutdownFn = Return (*)();
using SystemGetVersionFn = Return (*)(char* version, unsigned int length);
using SystemGetProcessNameFn = Return (*)(unsigned int pid, char* name, unsigned int length);
using DeviceGetCountFn = Return (*)(unsigned int* count);
using DeviceGetHandleByIndexFn = Return (*)(unsigned int index, Device* device);
using DeviceGetNameFn = Return (*)(Device device, char* name, unsigned int length);
using DeviceGetPciInfoFn = Return (*)(Device device, PciInfo* pci);
using DeviceGetBrandFn = Return (*)(Device device, BrandType* type);
using DeviceGetSerialFn = Return (*)(Device device, char* serial, unsigned int length);
using DeviceGetTextFn = Return (*)(Device device, char* text, unsigned int length);
using DeviceGetMemoryInfoFn = Return (*)(Device device, Memory* memory);
using DeviceGetCudaComputeCapabilityFn = Return (*)(Device device, int* major, int* minor);
using DeviceGetRunningProcessesFn = Return (*)(Device device, unsigned int* count,
                                               ProcessInfo* infos);
using DeviceGetClockInfoFn = Return (*)(Device device, ClockType type, unsigned int* mhz);
using DeviceGetClockFn = Return (*)(Device device, ClockType type, ClockId id, unsigned int* mhz);
using DeviceGetUIntFn = Return (*)(Device device, unsigned int* value);
using DeviceGetTemperatureFn = Return (*)(Device device, TemperatureSensors sensor,
                                          unsigned int* celsius);
using DeviceGetTemperatureThresholdFn = Return (*)(Device device, TemperatureThresholds type,
                                                   unsigned int* celsius);
using DeviceGetEnergyFn = Return (*)(Device device, unsigned long long* millijoules);
using DeviceGetLimitConstraintsFn = Return (*)(Device device, unsigned int* min_mw,
                                               unsigned int* max_mw);
using DeviceGetPowerStateFn = Return (*)(Device device, Pstates* state);
using DeviceGetPcieThroughputFn = Return (*)(Device device, PcieUtilCounter counter,
                                             unsigned int* value);
using DeviceGetThrottleReasonsFn = Return (*)(Device device, unsigned long long* reasons);
using DeviceGetUtilizationRatesFn = Return (*)(Device device, Utilization* utilization);
using DeviceGetProcessUtilizationFn = Return (*)(Device device, ProcessUtilizationSample* samples,
                                                 unsigned int* count,
                                                 unsigned long long last_seen_timestamp);
using DeviceGetPlatformInfoFn = Return (*)(Device device, PlatformInfo* info);
using DeviceGetAttributesFn = Return (*)(Device device, DeviceAttributes* attributes);
using DeviceGetFanSpeedV2Fn = Return (*)(Device device, unsigned int fan, unsigned int* percent);
using DeviceGetFanSpeedRpmFn = Return (*)(Device device, FanSpeedInfo* info);
using DeviceGetArchitectureFn = Return (*)(Device device, DeviceArchitecture* architecture);

}  // namespace nvml
