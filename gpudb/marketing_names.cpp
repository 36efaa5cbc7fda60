// Board marketing names. The board tables are not part of this build yet:
// no board is recognised and every record keeps its chip name.
#include "plugin/gpu_monitor_vorn.h"

bool GpuMonitorVorn::update_all_gpus_marketing_name() {
  for (unsigned long i = 0; i < get_num_gpus(); ++i) update_gpu_marketing_name(get_gpu(i));
  return true;
}

bool GpuMonitorVorn::update_gpu_marketing_name(zev::GPU*) { return false; }
