#include "gpudb/record_names.h"

#include <cstring>

namespace {

void replace_text(char* field, unsigned long size, const char* text) {
  if (text == nullptr || text[0] == '\0') return;
  std::memset(field, 0, size);
  copy_text(field, size, text);
}

}  // namespace

void gpu_db_copy_names(GpuMonitorVorn* monitor, zev::GPU* gpu, int index) {
  replace_text(gpu->name, sizeof gpu->name, monitor->gpu_db_get_adapter_name(gpu->vendor_id, index));
  replace_text(gpu->codename, sizeof gpu->codename,
               monitor->gpu_db_get_gpu_codename(gpu->vendor_id, index));
}
