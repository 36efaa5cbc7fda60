// Database naming and the driver's ROP check, as both NVIDIA discoveries do
// them.
#include "backends/nvidia/nvidia_discovery_common.h"

#include "backends/nvidia/nvidia_backend.h"
#include "gpudb/gpu_db.h"

namespace {

// Value of rop_check_code under which a shortfall of ROPs is reported. The
// record's constructor sets -1 and nothing here assigns it: only a host
// that sets it hears the warning.
constexpr int32_t kRopCheckCode = 432;

}  // namespace

void nvidia_name_from_database(zev::GPU* gpu, ShaderCountSource shaders) {
  const int index = static_cast<int>(gpudb::index_of(gpu->vendor_id, gpu->device_id));
  if (index < 0) return;

  gpudb::copy_names(gpu, index);

  // Counts are stored as the database holds them; -1 there means unknown.
  gpu->db_num_shader_cores =
      static_cast<uint32_t>(gpudb::num_unified_shader_processors(gpu->vendor_id, index));
  if (shaders == ShaderCountSource::kDatabaseAlways || gpu->num_shader_cores == 0) {
    gpu->num_shader_cores = gpu->db_num_shader_cores;
  }
  gpu->num_texture_units = static_cast<uint32_t>(gpudb::num_texture_units(gpu->vendor_id, index));
  gpu->db_num_rops = static_cast<uint32_t>(gpudb::num_rops(gpu->vendor_id, index));
  gpu->num_rops = gpu->db_num_rops;
  gpu->tdp_w = static_cast<uint32_t>(gpudb::tdp(gpu->vendor_id, index));
}

namespace nvidia_backend {

void check_rop_count(zev::Plugin* tracer, zev::GPU* gpu, unsigned long index) {
  int rops = 0;
  const int rc = read_rop_counter(index, &rops);
  if (rc != 0) {
    tracer->tracef("  - ROP counter (from driver): not available (err: %d)", rc);
    return;
  }
  gpu->num_rops = static_cast<uint32_t>(rops);
  tracer->tracef("  - ROP counter (from driver): %d", rops);
  // The database count is signed data kept in an unsigned field: -1 (unknown)
  // must not count as a large number of ROPs.
  const int db_rops = static_cast<int>(gpu->db_num_rops);
  if (db_rops > 0 && gpu->rop_check_code == kRopCheckCode) {
    const int missing = db_rops - static_cast<int>(gpu->num_rops);
    if (missing > 0) tracer->tracef("  - warning: GPU with missing ROP (%d) detected", missing);
  }
}

}  // namespace nvidia_backend
