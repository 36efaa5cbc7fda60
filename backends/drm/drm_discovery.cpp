// DRM discovery: the adapters the kernel exposes as /sys/class/drm/cardN.
// Every card that answers the vendor probe (and is not an NVIDIA card that
// nvidia-smi already monitors) becomes a GPU record holding its PCI identity,
// its hwmon driver name and a first reading of every sensor it offers, named
// from the GPU database. The indices kept in the record (card, hwmon,
// temperature and power input) are what the sensor dispatch reads later.
#include <cstdio>
#include <cstring>

#include "backends/drm/drm_entries.h"
#include "backends/drm/drm_extra_sensors.h"
#include "backends/drm/drm_sysfs.h"
#include "gpudb/gpu_db.h"
#include "gpudb/vendor_tables.h"
#include "plugin/gpu_monitor_vorn.h"
#include "record/record_writes.h"

namespace {

using namespace gpu_record;

// Sensor numbers 1..7 are tried for temp, power and fan inputs (0 never is).
// A card without a hwmon folder keeps this as its hwmon index: reads of
// hwmon8 simply fail later.
constexpr int kNoHwmonIndex = 8;
constexpr int kMaxSensors = 8;

unsigned int hex32(unsigned long v) { return static_cast<unsigned int>(v); }

// Steps that need the card's hwmon directory: driver name, clocks, core
// temperature, power and fans.
void read_hwmon_sensors(GpuMonitorVorn* monitor, zev::GPU* gpu, int card, int hwmon) {
  char text[128];
  std::memset(text, 0, sizeof text);
  if (monitor->linux_drm_read_driver_name(card, hwmon, text)) {
    copy_text(gpu->driver_name, sizeof gpu->driver_name, text);
    monitor->tracef("  - driver: %s", gpu->driver_name);
  }

  int mhz = 0;
  if (monitor->linux_drm_read_gpu_core_clock(card, hwmon, &mhz)) {
    store_clock_value(&gpu->core_clock, static_cast<float>(mhz));
    monitor->tracef("  - core clock: %d MHz", mhz);
  }
  if (monitor->linux_drm_read_vram_clock(card, hwmon, &mhz)) {
    store_clock_value(&gpu->memory_clock, static_cast<float>(mhz));
    monitor->tracef("  - mem clock: %d MHz", mhz);
  }

  // The first temperature input that reads is the core temperature.
  for (int s = 1; s < kMaxSensors; ++s) {
    int celsius = 0;
    if (!monitor->linux_drm_read_gpu_temperature(card, hwmon, s, &celsius)) continue;
    gpu->drm_temp_input_index = s;
    store_temperature_reading(gpu, kCoreTemperature, static_cast<float>(celsius));
    monitor->tracef("  - core temperature: %d °C", celsius);
    mark_readable(gpu, kTemperatureFlag);
    break;
  }

  // The first power input that reads, in whole watts.
  for (int s = 1; s < kMaxSensors; ++s) {
    int watts = 0;
    if (!monitor->linux_drm_read_gpu_power(card, hwmon, s, &watts)) continue;
    gpu->drm_power_index = s;
    store_power_reading(&gpu->power, static_cast<float>(watts));
    monitor->tracef("  - power: %d W", watts);
    break;
  }

  // Fans: the number of fan inputs that read, then fans 1..n by position.
  unsigned long num_fans = 0;
  for (int s = 1; s < kMaxSensors; ++s) {
    int rpm = 0;
    if (monitor->linux_drm_read_gpu_fan_speed(card, hwmon, s, &rpm)) ++num_fans;
  }
  if (num_fans != 0) {
    monitor->tracef("  - num fans: %d", static_cast<int>(num_fans));
    gpu->num_fans = num_fans;
    gpu->fans = new zev::gpuFanSpeed[num_fans];
    for (unsigned long j = 0; j < num_fans; ++j) {
      int rpm = 0;
      if (!monitor->linux_drm_read_gpu_fan_speed(card, hwmon, j + 1, &rpm)) continue;
      store_fan_reading(&gpu->fans[j], static_cast<float>(rpm));
      monitor->tracef("    > fan[%d] speed: %d RPM", static_cast<int>(j + 1), rpm);
    }
  }
}

// Name, codename, unit counts and TDP from the GPU database. AMD rows may
// depend on the revision text; the other vendors' lookups ignore it.
void name_from_database(zev::GPU* gpu, const char* revision_text) {
  const int index =
      static_cast<int>(gpudb::index_of_revision(gpu->vendor_id, gpu->device_id, revision_text));
  if (index < 0) return;
  gpudb::copy_names(gpu, index);
  // Stored as the database holds them; -1 there means unknown.
  gpu->num_shader_cores =
      static_cast<uint32_t>(gpudb::num_unified_shader_processors(gpu->vendor_id, index));
  gpu->num_texture_units = static_cast<uint32_t>(gpudb::num_texture_units(gpu->vendor_id, index));
  gpu->num_rops = static_cast<uint32_t>(gpudb::num_rops(gpu->vendor_id, index));
  gpu->tdp_w = static_cast<uint32_t>(gpudb::tdp(gpu->vendor_id, index));
}

// The card's hwmon folder: the first hwmon<K> in ascending K whose name
// reads, whatever K (hwmon numbers are global: drives, DIMMs and board
// sensors often take the low ones). -1 when none does.
int find_hwmon(GpuMonitorVorn* monitor, int card) {
  char folder[drm_sysfs::kPathSize];
  drm_sysfs::format_path(folder, "/sys/class/drm/card%d/device/hwmon", card);
  for (int h : drm_entries::numbered(folder, "hwmon")) {
    if (monitor->linux_drm_gpu_probe_hwmon(card, h)) return h;
  }
  return -1;
}

void trace_line(void* monitor, const char* line) {
  static_cast<GpuMonitorVorn*>(monitor)->tracef("%s", line);
}

}  // namespace

// Cards are the card<N> entries of /sys/class/drm, whatever N, tried in
// ascending N until the GPU list is full. A machine with cards beyond card7
// (a mining rig, a server whose GPUs are card1, card9, card17, ...) shows
// every one of them; machines whose cards all lie within card0..card7 see
// exactly the scan over those numbers.
bool GpuMonitorVorn::linux_drm_init_gpus() {
  tracef("DRM: scanning GPUs...");
  int num_created = 0;
  int num_nvidia_seen = 0;

  // Card numbers are never renumbered: a gap (no card0, simpledrm gone, a
  // removed card) leaves the later cards at their own numbers.
  for (int c : drm_entries::numbered("/sys/class/drm", "card")) {
    if (get_num_gpus() >= kMaxGpus) break;
    if (!linux_drm_gpu_probe(c)) continue;

    unsigned long vendor = 0;
    if (linux_drm_read_vendor_id(c, &vendor) && vendor == gpudb_vendor::kNvidia) {
      ++num_nvidia_seen;
      // Already monitored through nvidia-smi or NVML.
      if (num_nv_smi_detected != 0 || num_nvml_detected != 0) continue;
    }

    ++num_created;
    zev::GPU* gpu = create_gpu();
    tracef("> GPU %d", c);

    const int found_hwmon = find_hwmon(this, c);
    if (found_hwmon >= 0) tracef("  - hwmon index: %d", found_hwmon);
    gpu->drm_card_index = c;
    gpu->drm_hwmon_index = found_hwmon >= 0 ? found_hwmon : kNoHwmonIndex;

    gpu->vendor_id = vendor;
    unsigned long device = 0;
    if (linux_drm_read_device_id(c, &device)) gpu->device_id = device;
    tracef("  - device ID: %4X-%4X", hex32(vendor), hex32(device));

    // The revision text has two upper-case digits; a revision below 0x10
    // gets a leading blank, which no two-digit database revision matches.
    char revision_text[4];
    std::memset(revision_text, 0, sizeof revision_text);
    unsigned long revision = 0;
    if (linux_drm_read_revision_id(c, &revision)) {
      gpu->revision_id = revision;
      tracef("  - revision ID: %2X", hex32(revision));
      const int n = std::snprintf(revision_text, sizeof revision_text, "%2X", hex32(revision));
      (void)n;
    }

    unsigned long subvendor = 0;
    unsigned long subdevice = 0;
    if (linux_drm_read_subvendor_id(c, &subvendor)) gpu->subvendor_id = subvendor;
    if (linux_drm_read_subdevice_id(c, &subdevice)) gpu->subdevice_id = subdevice;
    tracef("  - subdevice ID: %4X-%4X", hex32(subvendor), hex32(subdevice));

    char vbios[128];
    std::memset(vbios, 0, sizeof vbios);
    if (linux_drm_read_vbios(c, vbios)) {
      copy_text(gpu->vbios_version, sizeof gpu->vbios_version, vbios);
      tracef("  - VBIOS: %s", gpu->vbios_version);
    }

    int usage = 0;
    if (linux_drm_read_gpu_usage(c, &usage)) {
      store_usage_value(gpu->core_usage, static_cast<float>(usage));
      tracef("  - core usage: %d %%", usage);
      mark_readable(gpu, kUsageFlag);
    }

    if (found_hwmon >= 0) read_hwmon_sensors(this, gpu, c, found_hwmon);
    drm_extra::discover(c, found_hwmon, gpu, &drm_extra_sensors[gpu->index], trace_line, this);

    name_from_database(gpu, revision_text);

    if (gpu->monitorable) ++num_monitorable_gpus;
  }

  if (num_created == 0) {
    if (num_nvidia_seen == 0) {
      tracef("DRM: no GPU found.");
    } else {
      tracef("DRM: no GPU other than NVIDIA found.");
    }
    return false;
  }
  num_gpus_drm = static_cast<uint64_t>(num_created);
  return true;
}
