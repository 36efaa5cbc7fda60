// The two fixed-capacity GPU lists: the general list owns every record, the
// NVML list refers to the records the NVML path refreshes.
#include <algorithm>

#include "plugin/gpu_monitor_vorn.h"
#include "record/record_writes.h"

zev::GPU* GpuMonitorVorn::create_gpu() {
  zev::GPU* gpu = new zev::GPU();
  add_gpu(gpu);
  gpu->bus_id = gpu_record::placeholder_bus(num_gpus);
  return gpu;
}

bool GpuMonitorVorn::add_gpu(zev::GPU* gpu) {
  if (gpu == nullptr || num_gpus >= kMaxGpus) return false;
  gpus[num_gpus] = gpu;
  gpu->index = num_gpus;
  ++num_gpus;
  return true;
}

bool GpuMonitorVorn::register_found_gpu(zev::GPU* gpu) {
  if (!add_gpu(gpu)) {
    gpu_record::free_record_arrays(gpu);
    delete gpu;
    return false;
  }
  gpu->bus_id = gpu_record::placeholder_bus(num_gpus);
  if (gpu->monitorable) ++num_monitorable_gpus;
  return true;
}

zev::GPU* GpuMonitorVorn::create_nvml_gpu() {
  zev::GPU* gpu = new zev::GPU();
  add_nvml_gpu(gpu);
  return gpu;
}

bool GpuMonitorVorn::add_nvml_gpu(zev::GPU* gpu) {
  if (gpu == nullptr || nvml_gpus_count >= kMaxGpus) return false;
  nvml_gpus[nvml_gpus_count++] = gpu;
  return true;
}

bool GpuMonitorVorn::cleanup_gpus_list() {
  for (unsigned long i = 0; i < kMaxGpus; ++i) {
    zev::GPU* gpu = gpus[i];
    if (gpu != nullptr) {
      gpu_record::free_record_arrays(gpu);
      delete gpu;
    }
    gpus[i] = nullptr;
    nvml_gpus[i] = nullptr;
    drm_extra_sensors[i] = drm_backend::CardSensors();
  }
  num_gpus = 0;
  nvml_gpus_count = 0;
  return true;
}

unsigned long GpuMonitorVorn::get_num_gpus() { return num_gpus; }

zev::GPU* GpuMonitorVorn::get_gpu(unsigned long index) {
  return index < num_gpus ? gpus[index] : nullptr;
}

zev::GPU* GpuMonitorVorn::get_gpu_v2(unsigned long vendor, unsigned long device, int index) {
  for (unsigned long i = 0; i < kMaxGpus; ++i) {
    const zev::GPU* gpu = gpus[i];
    if (gpu == nullptr) continue;  // an empty slot is no match
    if (gpu->vendor_id != vendor || gpu->device_id != device) continue;
    if (index >= 0 && gpu->index != static_cast<uint64_t>(index)) continue;
    return gpus[i];
  }
  return nullptr;
}

zev::GPU* GpuMonitorVorn::get_gpu_by_devid_and_busid(unsigned long vendor, unsigned long device,
                                                     int bus) {
  for (zev::GPU* gpu : gpus) {
    if (gpu != nullptr && gpu->vendor_id == vendor && gpu->device_id == device &&
        gpu->bus_id == bus)
      return gpu;
  }
  return nullptr;
}

unsigned long GpuMonitorVorn::get_num_gpus_by_vendor(unsigned long vendor) {
  unsigned long count = 0;
  for (const zev::GPU* gpu : gpus) {
    if (gpu != nullptr && gpu->vendor_id == vendor) ++count;
  }
  return count;
}

bool GpuMonitorVorn::reset_gpus_sensors() {
  for (zev::GPU* gpu : gpus) {
    if (gpu != nullptr) gpu->reset_sensors();
  }
  return true;
}

namespace {

// Real bus numbers first, ascending; placeholders (1000 and up) are real
// numbers too and so follow in creation order; records left at -1 go last.
// Other negative values cannot be read from any back-end; they are ordered
// between the two groups so that the test stays a strict weak ordering.
int bus_group(int32_t bus) { return bus >= 0 ? 0 : (bus == -1 ? 2 : 1); }

bool bus_id_before(const zev::GPU* a, const zev::GPU* b) {
  if (a->bus_id >= 0 && b->bus_id >= 0) return a->bus_id < b->bus_id;
  return bus_group(a->bus_id) < bus_group(b->bus_id);
}

}  // namespace

void GpuMonitorVorn::sort_gpus_by_bus_id() {
  // Record indices are not renumbered: after a sort they keep the slot each
  // record had when it was added.
  std::sort(gpus, gpus + num_gpus, bus_id_before);
}

unsigned long GpuMonitorVorn::get_num_monitorable_gpus() { return num_monitorable_gpus; }

void GpuMonitorVorn::release_if_unlisted(zev::GPU* gpu) {
  for (unsigned long i = 0; i < kMaxGpus; ++i) {
    if (gpus[i] == gpu || nvml_gpus[i] == gpu) return;
  }
  gpu_record::free_record_arrays(gpu);
  delete gpu;
}

unsigned long GpuMonitorVorn::nvml_get_num_gpus() { return nvml_gpus_count; }

zev::GPU* GpuMonitorVorn::nvml_get_gpu(unsigned long index) {
  return index < nvml_gpus_count ? nvml_gpus[index] : nullptr;
}
