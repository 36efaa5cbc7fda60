// zev::GpuMonitor: the monitor interface a host drives. Hosts call these
// operations by position in the virtual table, so their order is fixed.
// Positions counted from 1 with the two destructor entries first:
//   1-2 destructors, 3-6 tracing (zev::Plugin), 7 initialize ... 86 get_gpu_v2.
#pragma once

#include "zev/gpu.h"
#include "zev/math.h"
#include "zev/plugin.h"
#include "zev/render_fwd.h"

namespace zev {

class GpuMonitor : public Plugin {
 public:
  GpuMonitor() : Plugin() {}
  ~GpuMonitor() override {}

  // 7-10: lifecycle.
  bool initialize() override = 0;
  bool terminate() override = 0;
  bool start() override = 0;
  bool stop() override = 0;

  // 11-14: refresh.
  virtual bool update_dynamic_data() = 0;
  virtual bool update_dynamic_data_rt(unsigned long) = 0;
  virtual bool start_update_thread(unsigned long period_ms) = 0;
  virtual bool stop_update_thread() = 0;

  // 15-18: overlay resources.
  virtual bool graph2d_init(Renderer* renderer) = 0;
  virtual bool graph2d_cleanup(Renderer* renderer) = 0;
  virtual void set_viewport(int x, int y, int w, int h) = 0;
  virtual Viewport get_viewport() = 0;

  // 19-24: drawing.
  virtual bool draw_gpu_info_simplified(Renderer* renderer, RenderWindow* window, Font* font, int x,
                                        int y, int line_step) = 0;
  virtual bool draw_gpu_data_v1(Renderer* renderer, int x, int y, int w, int h,
                                bool show_usage_bars) = 0;
  virtual bool draw_gpu_data_v2(Renderer* renderer, int x, int y, int w, int h,
                                RenderWindow* window, Font* font) = 0;
  virtual bool draw_gpu_data_v3(Renderer* renderer, int x, int y, int w, int h, Font* font,
                                GpuProgram* program, Camera* camera, float scale, int text_x,
                                int text_y, int line_step) = 0;
  virtual bool draw_gpu_data_v4(Renderer* renderer, int x, int y, int w, int h,
                                FreeTypeGLPluginInterface* ft, Font* font, GpuProgram* program,
                                Camera* camera, float scale, int text_x, int text_y,
                                int line_step) = 0;
  virtual bool draw_gpu_data_v5(Renderer* renderer, int x, int y, int w, int h, Font* font,
                                GpuProgram* program, Camera* camera, float scale, int text_x,
                                int text_y, int line_step, bool show_usage) = 0;

  // 25-28: colours.
  virtual void draw_set_bkg_quad_color(float r, float g, float b, float a) = 0;
  virtual void draw_set_bkg_quad_vertex_color(unsigned long vertex, float r, float g, float b,
                                              float a) = 0;
  virtual int set_gpu_data_color(unsigned long index, float r, float g, float b, float a) = 0;
  virtual int set_cpu_data_color(unsigned long index, float r, float g, float b, float a) = 0;

  // 29-32: GPU records.
  virtual unsigned long get_num_gpus() = 0;
  virtual GPU* get_gpu(unsigned long index) = 0;
  virtual const char* get_gpu_name_from_device_id(unsigned long vendor, unsigned long device,
                                                  unsigned long revision) = 0;
  virtual bool reset_gpus_sensors() = 0;

  // 33-38: controls this platform does not offer.
  virtual bool gpu_power_set_power_target(unsigned long index, float target) = 0;
  virtual bool geforce_logo_is_illumination_supported(unsigned long index) = 0;
  virtual bool geforce_logo_set_illumination(unsigned long index, float level) = 0;
  virtual bool geforce_logo_get_illumination(unsigned long index, float* level) = 0;
  virtual bool driver_settings_get_vsync_status(int* status) = 0;
  virtual bool driver_settings_set_vsync_status(int status) = 0;

  // 39-46: system information.
  virtual const char* get_cpu_name() = 0;
  virtual unsigned long get_cpu_speed_mhz() = 0;
  virtual unsigned long get_cpu_mem_kb() = 0;
  virtual unsigned long get_physical_cpu_mem_mb() = 0;
  virtual unsigned long get_available_cpu_mem_kb() = 0;
  virtual unsigned int get_cpu_logical_cores() = 0;
  virtual unsigned int get_cpu_physical_cores() = 0;
  virtual const char* get_os_name() = 0;

  // 47-55: OpenGL information.
  virtual const char* opengl_get_vendor() = 0;
  virtual const char* opengl_get_renderer() = 0;
  virtual const char* opengl_get_version() = 0;
  virtual int opengl_get_version_major() = 0;
  virtual int opengl_get_version_minor() = 0;
  virtual unsigned long opengl_get_num_extensions() = 0;
  virtual const char* opengl_get_extension(unsigned long index) = 0;
  virtual bool opengl_init(Renderer* renderer, RenderWindow* window) = 0;
  virtual bool opengl_get_capability_4i(const char* name, int* v0, int* v1, int* v2, int* v3) = 0;

  // 56-79: real-time interface of other platforms.
  virtual bool rt_init(unsigned long) = 0;
  virtual bool rt_cleanup() = 0;
  virtual bool rt_connect(unsigned long) = 0;
  virtual bool rt_disconnect() = 0;
  virtual bool rt_read_gpu_data(unsigned long) = 0;
  virtual bool rt_init_gpus_list() = 0;
  virtual bool rt_get_num_gpus(unsigned long* count) = 0;
  virtual bool rt_get_gpu_name(unsigned long index, char* name) = 0;
  virtual bool rt_get_gpu_core_temperature(unsigned long index, float* value) = 0;
  virtual bool rt_get_gpu_mem_temperature(unsigned long index, float* value) = 0;
  virtual bool rt_get_gpu_vrm_temperature(unsigned long index, float* value) = 0;
  virtual bool rt_get_gpu_core_usage(unsigned long index, float* value) = 0;
  virtual bool rt_get_gpu_mem_usage(unsigned long index, float* value) = 0;
  virtual bool rt_get_gpu_core_clock(unsigned long index, float* value) = 0;
  virtual bool rt_get_gpu_mem_clock(unsigned long index, float* value) = 0;
  virtual bool rt_get_gpu_power(unsigned long index, float* value) = 0;
  virtual bool rt_get_gpu_abs_power(unsigned long index, float* value) = 0;
  virtual bool rt_get_gpu_rel_power(unsigned long index, float* value) = 0;
  virtual bool rt_get_policy_limit_power(unsigned long index, int* value) = 0;
  virtual bool rt_get_policy_limit_temperature(unsigned long index, int* value) = 0;
  virtual bool rt_get_policy_limit_voltage(unsigned long index, int* value) = 0;
  virtual bool rt_get_policy_limit_overvoltage(unsigned long index, int* value) = 0;
  virtual bool rt_get_all_policy_limits(unsigned long index, int* power, int* temperature,
                                        int* voltage, int* overvoltage) = 0;
  virtual bool rt_get_cpu_temperature_and_usage(unsigned long, float* temperature,
                                                float* usage) = 0;

  // 80-85: NVML list and refresh.
  virtual unsigned long nvml_get_num_gpus() = 0;
  virtual GPU* nvml_get_gpu(unsigned long index) = 0;
  virtual bool nvml_update_dynamic_data() = 0;
  virtual bool nvml_update_power_usage(unsigned long index) = 0;
  virtual bool nvml_update_process_utilization(unsigned long index) = 0;
  virtual bool nvml_get_pcie_throughput(unsigned long index) = 0;

  // 86.
  virtual GPU* get_gpu_v2(unsigned long vendor, unsigned long device, int index) = 0;
};

}  // namespace zev

// Entry points of the plug-in library.
extern "C" {
void* zev_plugin_create();
int zev_plugin_destroy(void* plugin);
}
