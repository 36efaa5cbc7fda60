// Raspberry Pi discovery: the VideoCore V3D block has no PCI identity, so one
// record is made from the board model (system information's answer to
// "which board is this", the CPU name on a Pi) and a board table, and given
// first readings of the three Pi readers.
#include <cstring>

#include "backends/rpi/rpi_backend.h"
#include "gpudb/vendor_tables.h"
#include "io/copy_text.h"
#include "record/record_writes.h"
#include "sysinfo/board_model.h"

namespace rpi_backend {

namespace {

using namespace gpu_record;

struct Board {
  const char* model;
  const char* name;
  const char* codename;
  int shaders, tmus, rops, tdp;
};

// Tried in this order; a later match would overwrite an earlier one.
const Board kBoards[] = {
    {"Raspberry Pi 5", "VideoCore 7", "BCM2712-V3D", 64, 4, -1, -1},
    {"Raspberry Pi 4", "VideoCore 6", "BCM2711-V3D", 16, 2, -1, -1},
    {"Raspberry Pi 3", "VideoCore 4", "BCM2837-V3D", -1, -1, -1, -1},
};

// The identity of the board's GPU from the table.
void read_board(zev::Plugin* tracer, const char* model, zev::GPU* gpu) {
  for (const Board& board : kBoards) {
    if (std::strstr(model, board.model) == nullptr) continue;
    gpu->device_id = 0;
    std::memset(gpu->name, 0, sizeof gpu->name);
    copy_text(gpu->name, sizeof gpu->name, board.name);
    std::memset(gpu->codename, 0, sizeof gpu->codename);
    copy_text(gpu->codename, sizeof gpu->codename, board.codename);
    tracer->tracef("  - name: %s (codename: %s)", gpu->name, gpu->codename);
    gpu->num_shader_cores = static_cast<uint32_t>(board.shaders);
    gpu->num_texture_units = static_cast<uint32_t>(board.tmus);
    gpu->num_rops = static_cast<uint32_t>(board.rops);
    gpu->tdp_w = static_cast<uint32_t>(board.tdp);
    if (board.shaders > 0) {
      tracer->tracef("  - cores: %d", board.shaders);
      tracer->tracef("  - TMUs: %d", board.tmus);
    }
    gpu->gpu_kind = 2;
    if (std::strcmp(board.model, "Raspberry Pi 5") == 0)
      copy_text(gpu->identifier, sizeof gpu->identifier, "_UNKNOWN_");
  }
}

// The first readings: temperature, usage (with the method that gave it) and
// clock.
void read_first_values(zev::Plugin* tracer, zev::GPU* gpu) {
  float celsius = -1.0f;
  if (read_gpu_core_temp(&celsius)) {
    store_temperature_reading(gpu, kCoreTemperature, celsius);
    tracer->tracef(
        "  - GPU temperature: %.1f \xC2\xB0"
        "C",
        static_cast<double>(celsius));
    mark_readable(gpu, kTemperatureFlag);
  }

  // The first statistics read only primes the previous values; the second
  // gives a real difference.
  float usage = -1.0f;
  if (read_gpu_usage_v2(gpu, &usage)) {
    read_gpu_usage_v2(gpu, &usage);
    gpu->rpi_usage_method = 2;
  } else if (read_gpu_usage_v1(gpu, &usage)) {
    gpu->rpi_usage_method = 1;
  }
  if (usage >= 0.0f) {
    store_usage_value(gpu->core_usage, usage);
    tracer->tracef("  - core usage (v%d): %.1f %%", gpu->rpi_usage_method,
                   static_cast<double>(usage));
    mark_readable(gpu, kUsageFlag);
  }

  float mhz = -1.0f;
  if (!read_gpu_core_clock(&mhz)) return;
  store_clock_value(&gpu->core_clock, mhz);
  tracer->tracef("  - core clock: %.1f MHz", static_cast<double>(mhz));
}

}  // namespace

zev::GPU* discover_gpu(zev::Plugin* tracer, const char* model, uint64_t list_position) {
  if (!board_model::raspberry_pi_model(model)) return nullptr;

  tracer->tracef("Raspberry Pi (arm64) platform: reading GPU info...");
  zev::GPU* gpu = new zev::GPU();
  tracer->tracef("> GPU %d", static_cast<int>(list_position));
  gpu->drm_card_index = -1;
  gpu->drm_hwmon_index = -1;
  gpu->vendor_id = gpudb_vendor::kBroadcom;
  tracer->tracef("  - vendor ID: %4X (Broadcom)", static_cast<unsigned>(gpu->vendor_id));
  read_board(tracer, model, gpu);
  read_first_values(tracer, gpu);
  return gpu;
}

}  // namespace rpi_backend
