// DRM discovery: the adapters the kernel exposes as /sys/class/drm/cardN.
// Every card that answers the vendor probe (and is not an NVIDIA card that
// nvidia-smi already monitors) becomes a GPU record holding its PCI identity,
// its hwmon driver name and a first reading of every sensor it offers, named
// from the GPU database. The indices kept in the record (card, hwmon,
// temperature and power input) are what the sensor dispatch reads later.
#include <cstdio>
#include <cstring>

#include "backends/drm/drm_backend.h"
#include "backends/drm/drm_extra_sensors.h"
#include "backends/drm/drm_sysfs.h"
#include "gpudb/gpu_db.h"
#include "gpudb/vendor_tables.h"
#include "io/copy_text.h"
#include "io/numbered_entries.h"
#include "record/record_writes.h"
#include "zev/gpu.h"
#include "zev/plugin.h"

namespace drm_backend {

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
void read_hwmon_sensors(zev::Plugin* tracer, zev::GPU* gpu, int card, int hwmon) {
  char text[128];
  std::memset(text, 0, sizeof text);
  if (read_driver_name(card, hwmon, text)) {
    copy_text(gpu->driver_name, sizeof gpu->driver_name, text);
    tracer->tracef("  - driver: %s", gpu->driver_name);
  }

  int mhz = 0;
  if (read_core_clock(card, hwmon, &mhz)) {
    store_clock_value(&gpu->core_clock, static_cast<float>(mhz));
    tracer->tracef("  - core clock: %d MHz", mhz);
  }
  if (read_memory_clock(card, hwmon, &mhz)) {
    store_clock_value(&gpu->memory_clock, static_cast<float>(mhz));
    tracer->tracef("  - mem clock: %d MHz", mhz);
  }

  // The first temperature input that reads is the core temperature.
  for (int s = 1; s < kMaxSensors; ++s) {
    int celsius = 0;
    if (!read_temperature(card, hwmon, s, &celsius)) continue;
    gpu->drm_temp_input_index = s;
    store_temperature_reading(gpu, kCoreTemperature, static_cast<float>(celsius));
    tracer->tracef("  - core temperature: %d °C", celsius);
    mark_readable(gpu, kTemperatureFlag);
    break;
  }

  // The first power input that reads, in whole watts.
  for (int s = 1; s < kMaxSensors; ++s) {
    int watts = 0;
    if (!read_power(card, hwmon, s, &watts)) continue;
    gpu->drm_power_index = s;
    store_power_reading(&gpu->power, static_cast<float>(watts));
    tracer->tracef("  - power: %d W", watts);
    break;
  }

  // Fans: the number of fan inputs that read, then fans 1..n by position.
  unsigned long num_fans = 0;
  for (int s = 1; s < kMaxSensors; ++s) {
    int rpm = 0;
    if (read_fan_speed(card, hwmon, s, &rpm)) ++num_fans;
  }
  if (num_fans != 0) {
    tracer->tracef("  - num fans: %d", static_cast<int>(num_fans));
    gpu->num_fans = num_fans;
    gpu->fans = new zev::gpuFanSpeed[num_fans];
    for (unsigned long j = 0; j < num_fans; ++j) {
      int rpm = 0;
      if (!read_fan_speed(card, hwmon, j + 1, &rpm)) continue;
      store_fan_reading(&gpu->fans[j], static_cast<float>(rpm));
      tracer->tracef("    > fan[%d] speed: %d RPM", static_cast<int>(j + 1), rpm);
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
int find_hwmon(int card) {
  char folder[drm_sysfs::kPathSize];
  drm_sysfs::format_path(folder, "/sys/class/drm/card%d/device/hwmon", card);
  for (int h : numbered_entries::list(folder, "hwmon")) {
    if (probe_hwmon(card, h)) return h;
  }
  return -1;
}

}  // namespace

// Card numbers are never renumbered: a gap (no card0, simpledrm gone, a
// removed card) leaves the later cards at their own numbers. A machine with
// cards beyond card7 (a mining rig, a server whose GPUs are card1, card9,
// card17, ...) shows every one of them; machines whose cards all lie within
// card0..card7 see exactly the scan over those numbers.
std::vector<FoundCard> find_cards(bool nvidia_monitored, unsigned long capacity,
                                  zev::Plugin* tracer) {
  tracer->tracef("DRM: scanning GPUs...");
  std::vector<FoundCard> found;
  int num_nvidia_seen = 0;

  for (int c : numbered_entries::list("/sys/class/drm", "card")) {
    if (found.size() >= capacity) break;
    if (!probe(c)) continue;

    unsigned long vendor = 0;
    if (read_vendor_id(c, &vendor) && vendor == gpudb_vendor::kNvidia) {
      ++num_nvidia_seen;
      if (nvidia_monitored) continue;
    }

    found.push_back({new zev::GPU(), CardSensors()});
    zev::GPU* gpu = found.back().gpu;
    tracer->tracef("> GPU %d", c);

    const int found_hwmon = find_hwmon(c);
    if (found_hwmon >= 0) tracer->tracef("  - hwmon index: %d", found_hwmon);
    gpu->drm_card_index = c;
    gpu->drm_hwmon_index = found_hwmon >= 0 ? found_hwmon : kNoHwmonIndex;

    gpu->vendor_id = vendor;
    unsigned long device = 0;
    if (read_device_id(c, &device)) gpu->device_id = device;
    tracer->tracef("  - device ID: %4X-%4X", hex32(vendor), hex32(device));

    // The revision text has two upper-case digits; a revision below 0x10
    // gets a leading blank, which no two-digit database revision matches.
    char revision_text[4];
    std::memset(revision_text, 0, sizeof revision_text);
    unsigned long revision = 0;
    if (read_revision_id(c, &revision)) {
      gpu->revision_id = revision;
      tracer->tracef("  - revision ID: %2X", hex32(revision));
      const int n = std::snprintf(revision_text, sizeof revision_text, "%2X", hex32(revision));
      (void)n;
    }

    unsigned long subvendor = 0;
    unsigned long subdevice = 0;
    if (read_subvendor_id(c, &subvendor)) gpu->subvendor_id = subvendor;
    if (read_subdevice_id(c, &subdevice)) gpu->subdevice_id = subdevice;
    tracer->tracef("  - subdevice ID: %4X-%4X", hex32(subvendor), hex32(subdevice));

    char vbios[128];
    std::memset(vbios, 0, sizeof vbios);
    if (read_vbios(c, vbios)) {
      copy_text(gpu->vbios_version, sizeof gpu->vbios_version, vbios);
      tracer->tracef("  - VBIOS: %s", gpu->vbios_version);
    }

    int usage = 0;
    if (read_gpu_usage(c, &usage)) {
      store_usage_value(gpu->core_usage, static_cast<float>(usage));
      tracer->tracef("  - core usage: %d %%", usage);
      mark_readable(gpu, kUsageFlag);
    }

    if (found_hwmon >= 0) read_hwmon_sensors(tracer, gpu, c, found_hwmon);
    drm_extra::discover(c, found_hwmon, gpu, &found.back().sensors, tracer);

    name_from_database(gpu, revision_text);
  }

  if (found.empty()) {
    if (num_nvidia_seen == 0) {
      tracer->tracef("DRM: no GPU found.");
    } else {
      tracer->tracef("DRM: no GPU other than NVIDIA found.");
    }
  }
  return found;
}

bool has_other_than_nvidia() {
  for (int card : numbered_entries::list("/sys/class/drm", "card")) {
    unsigned long vendor = 0;
    if (probe(card) && read_vendor_id(card, &vendor) && vendor != gpudb_vendor::kNvidia)
      return true;
  }
  return false;
}

}  // namespace drm_backend
