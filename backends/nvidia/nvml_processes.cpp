// Per-process utilisation of an NVML GPU: which processes use the GPU and
// how much of its SMs and memory controller each takes. Read at discovery,
// by every refresh and on demand (the monitor's nvml_update_process_utilization).
//
// NVML is asked as it documents: a sizing call without a buffer first, which
// real drivers answer with INSUFFICIENT_SIZE whenever samples exist and with
// NOT_FOUND when no process has any, then the call with a buffer. Taking the
// sizing call's INSUFFICIENT_SIZE for a failure, as the first design did,
// left the table empty on every real driver: here it means "samples exist".
//
// The samples land in the state's buffer of kMaxProcessSamples, which is
// offered whole whatever count the sizing call gave (a huge one included);
// an answer claiming more samples than that is refused, and so are more
// processes with samples at once than that. The GPU's table grows when it
// must and is reused otherwise, so a refresh allocates nothing once the
// table is big enough; a process keeps its name while it keeps its place and
// pid.
#include <cstring>
#include <new>

#include "backends/nvidia/nvidia_backend.h"

namespace {

using nvidia_backend::kMaxProcessSamples;

// Room for `count` records: the table as it is when it holds enough, else a
// new one of at least twice the old room (the old one is freed).
bool make_room(zev::GPU* gpu, uint32_t* capacity, unsigned int count) {
  if (gpu->process_utilization == nullptr) *capacity = 0;
  if (count <= *capacity) return true;
  unsigned int room = *capacity < 4 ? 4 : *capacity * 2;
  if (room < count) room = count;
  if (room > kMaxProcessSamples) room = kMaxProcessSamples;
  zev::gpuProcessUtilization* records = new (std::nothrow) zev::gpuProcessUtilization[room];
  if (records == nullptr) return false;
  delete[] gpu->process_utilization;
  gpu->process_utilization = records;
  gpu->num_process_utilization = 0;
  *capacity = room;
  return true;
}

void store_sample(const NvmlEntryPoints& api, zev::gpuProcessUtilization* record,
                  const nvml::ProcessUtilizationSample& s) {
  // A pid that keeps its place keeps its name: the name is asked again only
  // for a new process (or one whose name could not be read).
  if (record->pid != s.pid || record->process_name[0] == '\0') {
    record->pid = s.pid;
    record->process_name[0] = '\0';
    if (api.nvmlSystemGetProcessName != nullptr) {
      api.nvmlSystemGetProcessName(s.pid, record->process_name, 1023u);
    }
  }
  record->timestamp = s.timeStamp;
  record->sm_util = s.smUtil;
  record->mem_util = s.memUtil;
}

}  // namespace

namespace nvidia_backend {

bool nvml_read_processes(NvmlState* state, zev::GPU* gpu, unsigned long slot) {
  const nvml::DeviceGetProcessUtilizationFn get_samples =
      state->api.nvmlDeviceGetProcessUtilization;
  if (gpu == nullptr || get_samples == nullptr) return false;
  if (slot >= kMaxNvmlGpus) return false;  // no room of its own in the state
  nvml::Device device = static_cast<nvml::Device>(gpu->nvml_device);

  unsigned int count = 0;
  nvml::Return rc = get_samples(device, nullptr, &count, 0);
  if (rc == nvml::kSuccess && count == 0) rc = nvml::kErrorNotFound;
  if (rc == nvml::kSuccess || rc == nvml::kErrorInsufficientSize) {
    // The whole buffer is offered, whatever the sizing call said: a process
    // that starts between the two calls still fits.
    count = kMaxProcessSamples;
    rc = get_samples(device, state->process_samples, &count, 0);
    if (rc == nvml::kSuccess && count == 0) rc = nvml::kErrorNotFound;
  }
  if (rc == nvml::kErrorNotFound) {
    // No process has samples: an empty table (its room is kept).
    gpu->num_process_utilization = 0;
    return true;
  }
  // A library claiming to have written more samples than the buffer holds
  // is not believed: the table stays as it was.
  if (rc != nvml::kSuccess || count > kMaxProcessSamples) return false;

  if (!make_room(gpu, &state->process_capacity[slot], count)) return false;
  for (unsigned int k = 0; k < count; ++k) {
    store_sample(state->api, &gpu->process_utilization[k], state->process_samples[k]);
  }
  gpu->num_process_utilization = count;
  return true;
}

}  // namespace nvidia_backend
