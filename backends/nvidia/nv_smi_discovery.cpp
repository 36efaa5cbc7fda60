// nvidia-smi discovery, the fallback when NVML cannot be used: every value is
// one nvidia-smi process (16 per GPU, plus the count). Records found here
// keep being read through the nvidia-smi readers by the sensor dispatch.
#include <cstddef>
#include <cstring>

#include "backends/nvidia/nvidia_backend.h"
#include "backends/nvidia/nvidia_discovery_common.h"
#include "io/copy_text.h"
#include "record/record_writes.h"

namespace nvidia_backend {

namespace {

using namespace gpu_record;

// A text answer into `field`, traced with `format`.
template <size_t N>
void read_and_trace(zev::Plugin* tracer, unsigned long i, NvSmiText which, char (&field)[N],
                    const char* format) {
  char text[128];
  std::memset(text, 0, sizeof text);
  if (!nv_smi_read_text(i, which, text)) return;
  copy_text(field, N, text);
  tracer->tracef(format, field);
}

void describe_gpu(zev::Plugin* tracer, zev::GPU* gpu, unsigned long i) {
  read_and_trace(tracer, i, NvSmiText::kName, gpu->name, "  - name: %s");

  unsigned long first = 0;
  unsigned long second = 0;
  if (nv_smi_read_id_pair(i, NvSmiIdPair::kDevice, &first, &second)) {
    gpu->vendor_id = first;
    gpu->device_id = second;
    tracer->tracef("  - device ID: %4X-%4X", static_cast<unsigned>(gpu->vendor_id),
                   static_cast<unsigned>(gpu->device_id));
  }
  first = 0;
  second = 0;
  if (nv_smi_read_id_pair(i, NvSmiIdPair::kSubdevice, &first, &second)) {
    gpu->subvendor_id = first;
    gpu->subdevice_id = second;
    tracer->tracef("  - subdevice ID: %4X-%4X", static_cast<unsigned>(gpu->subvendor_id),
                   static_cast<unsigned>(gpu->subdevice_id));
  }
  unsigned long bus = 0;
  if (nv_smi_read_bus(i, &bus)) {
    gpu->bus_id = static_cast<int32_t>(bus);
    tracer->tracef("  - bus ID: %d", gpu->bus_id);
  }

  read_and_trace(tracer, i, NvSmiText::kDriverVersion, gpu->driver_version, "  - driver: %s");
  read_and_trace(tracer, i, NvSmiText::kVbiosVersion, gpu->vbios_version, "  - vbios: %s");

  int value = 0;
  if (nv_smi_read_number(i, NvSmiNumber::kVramSize, &value)) {
    gpu->vram_size_mb = value;
    tracer->tracef("  - VRAM size: %d MB", value);
  }
}

void read_sensors(zev::Plugin* tracer, zev::GPU* gpu, unsigned long i) {
  int value = 0;
  if (nv_smi_read_number(i, NvSmiNumber::kGpuUsage, &value)) {
    store_usage_value(gpu->core_usage, static_cast<float>(value));
    tracer->tracef("  - core usage: %d %%", value);
    mark_readable(gpu, kUsageFlag);
  }
  if (nv_smi_read_number(i, NvSmiNumber::kVramUsage, &value)) {
    store_usage_value(gpu->memory_usage, static_cast<float>(value));
    tracer->tracef("  - mem usage: %d %%", value);
  }
  if (nv_smi_read_number(i, NvSmiNumber::kGpuTemperature, &value)) {
    store_temperature_reading(gpu, kCoreTemperature, static_cast<float>(value));
    tracer->tracef(
        "  - core temperature: %d \xC2\xB0"
        "C",
        value);
    mark_readable(gpu, kTemperatureFlag);
  }
  if (nv_smi_read_number(i, NvSmiNumber::kVramTemperature, &value)) {
    store_temperature_reading(gpu, kMemoryTemperature, static_cast<float>(value));
    tracer->tracef(
        "  - mem temperature: %d \xC2\xB0"
        "C",
        value);
  }
  if (nv_smi_read_number(i, NvSmiNumber::kGpuPower, &value)) {
    store_power_reading(&gpu->power, static_cast<float>(value));
    tracer->tracef("  - power: %d W", value);
  }
  if (nv_smi_read_number(i, NvSmiNumber::kGpuCoreClock, &value)) {
    store_clock_value(&gpu->core_clock, static_cast<float>(value));
    tracer->tracef("  - core clock: %d MHz", value);
  }
  if (nv_smi_read_number(i, NvSmiNumber::kVramClock, &value)) {
    store_clock_value(&gpu->memory_clock, static_cast<float>(value));
    tracer->tracef("  - mem clock: %d MHz", value);
  }
  // The fan and the video memory in use, which the first design read from
  // the first refresh on only: the record after discovery holds them as it
  // holds the other sensors. Nothing is traced for them.
  nv_smi_refresh_fan(gpu);
  nv_smi_refresh_vram_used(gpu);
}

}  // namespace

void nv_smi_read_device(zev::Plugin* tracer, zev::GPU* gpu, unsigned long index) {
  gpu->nvidia_gpu_index = static_cast<int32_t>(index);
  describe_gpu(tracer, gpu, index);
  read_sensors(tracer, gpu, index);
  nvidia_name_from_database(gpu, ShaderCountSource::kDatabaseAlways);
  check_rop_count(tracer, gpu, index);
}

// nvidia-smi reports one fan; its record is made on first success.
bool nv_smi_refresh_fan(zev::GPU* gpu) {
  int percent = 0;
  if (!nv_smi_read_number(gpu->nvidia_gpu_index, NvSmiNumber::kFanSpeed, &percent)) return false;
  store_fan_percent(single_fan(gpu), static_cast<float>(percent));
  return true;
}

// Video memory in use, a reading no dispatcher of the first design made:
// nvidia-smi's memory.used (MiB). A failed read keeps the last value.
bool nv_smi_refresh_vram_used(zev::GPU* gpu) {
  int mib = 0;
  if (!nv_smi_read_number(gpu->nvidia_gpu_index, NvSmiNumber::kVramUsed, &mib)) return false;
  store_memory_reading(gpu, mib);
  return true;
}

}  // namespace nvidia_backend
