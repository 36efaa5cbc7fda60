#include <cstring>

#include "gpudb/gpu_db.h"
#include "io/copy_text.h"

namespace gpudb {

namespace {

void replace_text(char* field, unsigned long size, const char* text) {
  if (text == nullptr || text[0] == '\0') return;
  std::memset(field, 0, size);
  copy_text(field, size, text);
}

}  // namespace

void copy_names(zev::GPU* gpu, int index) {
  replace_text(gpu->name, sizeof gpu->name, adapter_name(gpu->vendor_id, index));
  replace_text(gpu->codename, sizeof gpu->codename, codename(gpu->vendor_id, index));
}

}  // namespace gpudb
