// The NVIDIA back-ends as the monitor's core uses them: NVML (loaded at run
// time), nvidia-smi, nvidia-settings and the kernel driver's ROP count. Free
// functions with explicit inputs; the only state is the NVML state below,
// which the core keeps and hands in. Trace lines go to the `tracer` given
// (the monitor), in the order the monitor has always written them.
//
// Discovery: a back-end returns what it found, the core registers and counts
// it. For NVML the core asks nvml_start() how many devices the library has;
// for each it makes a record, puts it in its lists, counts it, and hands it
// to nvml_read_device(), which fills it (identity, description, a first
// reading of every sensor, the database's names, the driver's ROP count) and
// marks it monitorable when a sensor reads. The core then counts the
// monitorable record and frees one that found no room in its lists.
// nvidia-smi works the same way with nv_smi_read_num_gpus() and
// nv_smi_read_device(). The back-ends never see the lists.
#pragma once

#include <cstdint>

#include "backends/nvidia/nvml_binding.h"
#include "zev/gpu.h"
#include "zev/plugin.h"

namespace nvidia_backend {

// NVML GPUs the state keeps per-GPU room for (the core's list capacity).
constexpr unsigned long kMaxNvmlGpus = 16;
// Per-process utilisation samples read from NVML at a time, per GPU.
constexpr unsigned int kMaxProcessSamples = 256;

// What the NVML back-end keeps between calls: the library's entry points,
// and for the per-process utilisation the samples of one read and the
// records each NVML GPU's table has room for (by the GPU's slot in the NVML
// list), so that a refresh reuses them instead of allocating.
// The library's handle itself is the monitor's (`nvml_lib_handle`): start
// and stop set it, and the core refreshes nothing while it is null.
struct NvmlState {
  NvmlEntryPoints api;
  nvml::ProcessUtilizationSample process_samples[kMaxProcessSamples];
  uint32_t process_capacity[kMaxNvmlGpus];

  NvmlState();
};

// --- NVML (nvml_discovery.cpp, nvml_dynamic.cpp, nvml_processes.cpp)

// What a started library reports before any device is read.
struct NvmlDevices {
  unsigned int count;
  char driver_version[128];
};

// Loads the library, resolves its entry points, starts it and counts its
// devices. False when there is nothing to read: no library (nothing kept),
// no start-up or shut-down entry point or a refused start-up (the library
// stays loaded), no device (shut down and unloaded).
bool nvml_start(void** library, NvmlState* state, NvmlDevices* found);

// Shuts the library down and unloads it; nothing to do without one.
void nvml_stop(void** library, const NvmlState& state);

// Fills `gpu`, the record the core made for NVML device `index`. `slot`: the
// record's place in the core's NVML list, whose per-process utilisation is
// read as every refresh reads it; kNotListed when it has none.
constexpr unsigned long kNotListed = ~0ul;
void nvml_read_device(NvmlState* state, zev::Plugin* tracer, unsigned int index,
                      const char* driver_version, zev::GPU* gpu, unsigned long slot);

// The periodic refresh of one NVML GPU's sensors.
void nvml_refresh(const NvmlState& state, zev::GPU* gpu);
// On-demand refreshes of a loaded library's GPU; false without the GPU (or
// the entry point).
bool nvml_refresh_power(const NvmlState& state, zev::GPU* gpu);
bool nvml_read_pcie_throughput(const NvmlState& state, zev::GPU* gpu);
// The per-process utilisation of `gpu`, at `slot` of the NVML list.
bool nvml_read_processes(NvmlState* state, zev::GPU* gpu, unsigned long slot);

// --- nvidia-smi (nv_smi_readers.cpp, nv_smi_discovery.cpp): one process
// per value, GPU `index` as nvidia-smi numbers them.

// The count of GPUs: false when nvidia-smi cannot be started, 0 when it
// answers nothing.
bool nv_smi_read_num_gpus(unsigned long* count);

// Text answers, into 128 bytes.
enum class NvSmiText { kName, kDriverVersion, kVbiosVersion };
bool nv_smi_read_text(unsigned long index, NvSmiText text, char* out);

// Number answers: a fan's percentage of its maximum speed (not turns a
// minute), video memory total and in use (MiB), usages (%), temperatures
// (degrees C), power (whole watts), clocks (MHz).
enum class NvSmiNumber {
  kFanSpeed,
  kVramSize,
  kVramUsed,
  kGpuUsage,
  kVramUsage,
  kGpuTemperature,
  kVramTemperature,
  kGpuPower,
  kGpuCoreClock,
  kVramClock,
};
bool nv_smi_read_number(unsigned long index, NvSmiNumber number, int* out);

// PCI ids: the device's or the sub-system's, vendor and device; either
// output may be null.
enum class NvSmiIdPair { kDevice, kSubdevice };
bool nv_smi_read_id_pair(unsigned long index, NvSmiIdPair pair, unsigned long* vendor,
                         unsigned long* device);
bool nv_smi_read_bus(unsigned long index, unsigned long* bus);

// Fills `gpu`, the record the core made for nvidia-smi GPU `index`, tracing
// each value read.
void nv_smi_read_device(zev::Plugin* tracer, zev::GPU* gpu, unsigned long index);

// The record's single fan (a percentage) and its video memory in use (MiB),
// read through nvidia-smi; false, the record untouched, when nothing reads.
bool nv_smi_refresh_fan(zev::GPU* gpu);
bool nv_smi_refresh_vram_used(zev::GPU* gpu);

// --- nvidia-settings (nvidia_settings.cpp); nothing in discovery or refresh
// calls these.

bool nvidia_settings_read_driver_version(float* version);
bool nvidia_settings_read_core_temperature(unsigned long index, float* celsius);
bool nvidia_settings_read_fan_speed(unsigned long index, float* percent);
bool nvidia_settings_read_usages(unsigned long index, float* gpu_usage, float* memory_usage);
bool nvidia_settings_has_attribute(const char* name);

// --- the kernel driver (rop_counter.cpp, nvidia_discovery_common.cpp)

// ROP count from the kernel driver: 0 with *rops set, or the negative code
// of the step that failed (-1 to -6), *rops untouched.
int read_rop_counter(unsigned long gpu_index, int* rops);

// Asks the driver for the ROP count of device `index` and traces the result;
// a count from the driver replaces the database's in num_rops.
void check_rop_count(zev::Plugin* tracer, zev::GPU* gpu, unsigned long index);

}  // namespace nvidia_backend
