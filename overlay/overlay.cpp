// Overlay resources and drawing. The viewport and colours are kept; the
// scene objects need the host's renderer classes, which this build does not
// use yet, so nothing is created and nothing is drawn.
#include "plugin/gpu_monitor_vorn.h"

void GpuMonitorVorn::set_viewport(int x, int y, int w, int h) { viewport.set(x, y, w, h); }

zev::Viewport GpuMonitorVorn::get_viewport() { return viewport; }

bool GpuMonitorVorn::graph2d_init(zev::Renderer*) { return false; }

bool GpuMonitorVorn::graph2d_cleanup(zev::Renderer*) { return true; }

void GpuMonitorVorn::draw_set_bkg_quad_color(float r, float g, float b, float a) {
  bkg_quad_color.set(r, g, b, a);
}

void GpuMonitorVorn::draw_set_bkg_quad_vertex_color(unsigned long, float, float, float, float) {}

int GpuMonitorVorn::set_gpu_data_color(unsigned long index, float r, float g, float b, float a) {
  if (index < get_num_gpus()) get_gpu(index)->color.set(r, g, b, a);
  return 0;
}

int GpuMonitorVorn::set_cpu_data_color(unsigned long, float, float, float, float) { return 0; }

bool GpuMonitorVorn::draw_gpu_info_simplified(zev::Renderer*, zev::RenderWindow*, zev::Font*, int,
                                              int, int) {
  return false;
}

bool GpuMonitorVorn::draw_gpu_data_v1(zev::Renderer*, int, int, int, int, bool) { return false; }

bool GpuMonitorVorn::draw_gpu_data_v2(zev::Renderer*, int, int, int, int, zev::RenderWindow*,
                                      zev::Font*) {
  return false;
}

bool GpuMonitorVorn::draw_gpu_data_v3(zev::Renderer*, int, int, int, int, zev::Font*,
                                      zev::GpuProgram*, zev::Camera*, float, int, int, int) {
  return false;
}

bool GpuMonitorVorn::draw_gpu_data_v4(zev::Renderer*, int, int, int, int,
                                      zev::FreeTypeGLPluginInterface*, zev::Font*,
                                      zev::GpuProgram*, zev::Camera*, float, int, int, int) {
  return false;
}

bool GpuMonitorVorn::draw_gpu_data_v5(zev::Renderer*, int, int, int, int, zev::Font*,
                                      zev::GpuProgram*, zev::Camera*, float, int, int, int, bool) {
  return false;
}
