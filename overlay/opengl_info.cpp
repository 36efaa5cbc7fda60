// Snapshot of the host's OpenGL context. The getters hand out what is
// stored; filling it needs the host renderer's queries, which this build does
// not use yet, so the snapshot stays empty.
#include <initializer_list>

#include "plugin/gpu_monitor_vorn.h"

const char* GpuMonitorVorn::opengl_get_vendor() { return gl_vendor; }
const char* GpuMonitorVorn::opengl_get_renderer() { return gl_renderer; }
const char* GpuMonitorVorn::opengl_get_version() { return gl_version; }
int GpuMonitorVorn::opengl_get_version_major() { return gl_version_major; }
int GpuMonitorVorn::opengl_get_version_minor() { return gl_version_minor; }
unsigned long GpuMonitorVorn::opengl_get_num_extensions() { return num_gl_extensions; }

const char* GpuMonitorVorn::opengl_get_extension(unsigned long index) {
  if (gl_extensions == nullptr || index >= num_gl_extensions) return nullptr;
  return gl_extensions[index];
}

bool GpuMonitorVorn::opengl_init(zev::Renderer*, zev::RenderWindow*) { return false; }

bool GpuMonitorVorn::opengl_get_capability_4i(const char*, int* v0, int* v1, int* v2, int* v3) {
  // No limit is known before the snapshot is filled: four zeros.
  for (int* out : {v0, v1, v2, v3}) {
    if (out != nullptr) *out = 0;
  }
  return true;
}
