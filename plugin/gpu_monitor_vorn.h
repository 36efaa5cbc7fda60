// GpuMonitorVorn: the Linux monitor. One instance per loaded plug-in.
// Operations are grouped by the subsystem that defines them; each group
// lives in its own source file (see the comments).
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "backends/drm/drm_backend.h"
#include "backends/nvidia/nvidia_backend.h"
#include "io/copy_text.h"
#include "zev/gpu.h"
#include "zev/gpu_monitor.h"

// Identity record of a display device; nothing on Linux fills it.
class cDisplayDeviceId {
 public:
  char device_name[128];
  char device_string[128];
  char device_id[128];
  char device_key[128];

  cDisplayDeviceId();
};

class GpuMonitorVorn : public zev::GpuMonitor {
 public:
  static constexpr unsigned long kMaxGpus = 16;
  static_assert(kMaxGpus == nvidia_backend::kMaxNvmlGpus, "the NVML state has room per listed GPU");
  // Per-process utilisation samples read from NVML at a time, per GPU.
  static constexpr unsigned int kMaxProcessSamples = nvidia_backend::kMaxProcessSamples;

  GpuMonitorVorn();
  ~GpuMonitorVorn() override;

  // Lifecycle (plugin/monitor.cpp).
  bool initialize() override;
  bool terminate() override;
  bool start() override;
  bool stop() override;
  bool init_gpus_linux();
  // Whether the DRM scan would find a card other than NVIDIA's; asked
  // quietly, before the scan runs beside NVML.
  bool drm_has_other_than_nvidia();

  // Refresh and update thread (plugin/update.cpp).
  bool update_dynamic_data() override;
  bool update_dynamic_data_rt(unsigned long) override;
  bool start_update_thread(unsigned long period_ms) override;
  bool stop_update_thread() override;

  // Sensor dispatch: one sensor of one GPU routed to the back-end readers
  // (plugin/dispatch.cpp).
  bool gpu_get_clocks(unsigned long index, float* core_mhz, float* memory_mhz);
  bool gpu_get_usages(unsigned long index, float* core_percent, float* memory_percent,
                      float* usage3, float* usage4);
  bool gpu_get_temperatures(unsigned long index, float* core_c, float* memory_c, float* temp3,
                            float* temp4);
  bool gpu_power_get_current_value(unsigned long index, float* unused, float* watts);
  bool gpu_read_fan_speed(unsigned long index);
  bool gpu_get_fan_speed(unsigned long index, unsigned long fan, float* percent, float* rpm);

  // Overlay (overlay/).
  bool graph2d_init(zev::Renderer* renderer) override;
  bool graph2d_cleanup(zev::Renderer* renderer) override;
  void set_viewport(int x, int y, int w, int h) override;
  zev::Viewport get_viewport() override;
  bool draw_gpu_info_simplified(zev::Renderer* renderer, zev::RenderWindow* window, zev::Font* font,
                                int x, int y, int line_step) override;
  bool draw_gpu_data_v1(zev::Renderer* renderer, int x, int y, int w, int h,
                        bool show_usage_bars) override;
  bool draw_gpu_data_v2(zev::Renderer* renderer, int x, int y, int w, int h,
                        zev::RenderWindow* window, zev::Font* font) override;
  bool draw_gpu_data_v3(zev::Renderer* renderer, int x, int y, int w, int h, zev::Font* font,
                        zev::GpuProgram* program, zev::Camera* camera, float scale, int text_x,
                        int text_y, int line_step) override;
  bool draw_gpu_data_v4(zev::Renderer* renderer, int x, int y, int w, int h,
                        zev::FreeTypeGLPluginInterface* ft, zev::Font* font,
                        zev::GpuProgram* program, zev::Camera* camera, float scale, int text_x,
                        int text_y, int line_step) override;
  bool draw_gpu_data_v5(zev::Renderer* renderer, int x, int y, int w, int h, zev::Font* font,
                        zev::GpuProgram* program, zev::Camera* camera, float scale, int text_x,
                        int text_y, int line_step, bool show_usage) override;
  void draw_set_bkg_quad_color(float r, float g, float b, float a) override;
  void draw_set_bkg_quad_vertex_color(unsigned long vertex, float r, float g, float b,
                                      float a) override;
  int set_gpu_data_color(unsigned long index, float r, float g, float b, float a) override;
  int set_cpu_data_color(unsigned long index, float r, float g, float b, float a) override;

  // GPU lists (plugin/gpu_list.cpp).
  unsigned long get_num_gpus() override;
  zev::GPU* get_gpu(unsigned long index) override;
  zev::GPU* get_gpu_v2(unsigned long vendor, unsigned long device, int index) override;
  bool reset_gpus_sensors() override;
  unsigned long nvml_get_num_gpus() override;
  zev::GPU* nvml_get_gpu(unsigned long index) override;
  zev::GPU* create_gpu();
  bool add_gpu(zev::GPU* gpu);
  // Adds a record a back-end's discovery found and returned (the list takes
  // it over): its list slot, its placeholder bus number, and the count of
  // monitorable records. A full list frees it and answers false.
  bool register_found_gpu(zev::GPU* gpu);
  zev::GPU* create_nvml_gpu();
  bool add_nvml_gpu(zev::GPU* gpu);
  bool cleanup_gpus_list();
  zev::GPU* get_gpu_by_devid_and_busid(unsigned long vendor, unsigned long device, int bus);
  unsigned long get_num_gpus_by_vendor(unsigned long vendor);
  void sort_gpus_by_bus_id();
  unsigned long get_num_monitorable_gpus();
  // A record discovery made once the general list was full is in no list
  // and nothing would ever free it: it is freed with its arrays here.
  // Records in a list are left alone.
  void release_if_unlisted(zev::GPU* gpu);

  // GPU database (gpudb/). Index functions return 0xFFFFFFFF for "not
  // found"; callers hold the result in an int and test for a negative value.
  const char* get_gpu_name_from_device_id(unsigned long vendor, unsigned long device,
                                          unsigned long revision) override;
  unsigned int gpu_db_get_index(unsigned long vendor, unsigned long device);
  unsigned int gpu_db_get_index_v2(unsigned long vendor, unsigned long device,
                                   const char* revision);
  unsigned int gpu_db_get_index_v3(unsigned long vendor, unsigned long device, unsigned long value);
  const char* gpu_db_get_adapter_name(unsigned long vendor, int index);
  const char* gpu_db_get_gpu_codename(unsigned long vendor, int index);
  int gpu_db_get_tdp(unsigned long vendor, int index);
  int gpu_db_get_num_unified_shader_processors(unsigned long vendor, int index);
  int gpu_db_get_num_texture_units(unsigned long vendor, int index);
  int gpu_db_get_num_rops(unsigned long vendor, int index);
  // `table` points to a GpuDbTable (gpudb/gpu_db_tables.h).
  const char* get_gpu_name_from_devices_table(const void* table, unsigned long row_count,
                                              unsigned long device, unsigned long revision);
  bool update_all_gpus_marketing_name();
  bool update_gpu_marketing_name(zev::GPU* gpu);
  bool update_gpu_marketing_name_nvidia(zev::GPU* gpu);
  bool update_gpu_marketing_name_amd(zev::GPU* gpu);
  bool update_gpu_marketing_name_intel(zev::GPU* gpu);
  bool update_gpu_marketing_name_moore_threads(zev::GPU* gpu);

  // PCI id text (gpudb/pci_strings.cpp).
  unsigned int to_hex(char c);
  unsigned int str_to_hex(char a, char b, char c, char d);
  unsigned int str_to_hex2(char a, char b);
  bool getVendorID_From_FullDeviceIDString(const char* s, char* text, unsigned long* value);
  bool getDeviceID_From_FullDeviceIDString(const char* s, char* text, unsigned long* value);
  bool getSubVendorID_From_FullDeviceIDString(const char* s, char* text, unsigned long* value);
  bool getSubDeviceID_From_FullDeviceIDString(const char* s, char* text, unsigned long* value);
  unsigned int gpu_db_get_index_from_device_id_string(const char* s, zev::GPU* gpu);

  // Operations this platform does not offer (plugin/unsupported.cpp).
  bool gpu_power_set_power_target(unsigned long index, float target) override;
  bool geforce_logo_is_illumination_supported(unsigned long index) override;
  bool geforce_logo_set_illumination(unsigned long index, float level) override;
  bool geforce_logo_get_illumination(unsigned long index, float* level) override;
  bool driver_settings_get_vsync_status(int* status) override;
  bool driver_settings_set_vsync_status(int status) override;
  bool rt_init(unsigned long) override;
  bool rt_cleanup() override;
  bool rt_connect(unsigned long) override;
  bool rt_disconnect() override;
  bool rt_read_gpu_data(unsigned long) override;
  bool rt_init_gpus_list() override;
  bool rt_get_num_gpus(unsigned long* count) override;
  bool rt_get_gpu_name(unsigned long index, char* name) override;
  bool rt_get_gpu_core_temperature(unsigned long index, float* value) override;
  bool rt_get_gpu_mem_temperature(unsigned long index, float* value) override;
  bool rt_get_gpu_vrm_temperature(unsigned long index, float* value) override;
  bool rt_get_gpu_core_usage(unsigned long index, float* value) override;
  bool rt_get_gpu_mem_usage(unsigned long index, float* value) override;
  bool rt_get_gpu_core_clock(unsigned long index, float* value) override;
  bool rt_get_gpu_mem_clock(unsigned long index, float* value) override;
  bool rt_get_gpu_power(unsigned long index, float* value) override;
  bool rt_get_gpu_abs_power(unsigned long index, float* value) override;
  bool rt_get_gpu_rel_power(unsigned long index, float* value) override;
  bool rt_get_policy_limit_power(unsigned long index, int* value) override;
  bool rt_get_policy_limit_temperature(unsigned long index, int* value) override;
  bool rt_get_policy_limit_voltage(unsigned long index, int* value) override;
  bool rt_get_policy_limit_overvoltage(unsigned long index, int* value) override;
  bool rt_get_all_policy_limits(unsigned long index, int* power, int* temperature, int* voltage,
                                int* overvoltage) override;
  bool rt_get_cpu_temperature_and_usage(unsigned long, float* temperature, float* usage) override;

  // System information (plugin/system_info.cpp, over sysinfo/).
  const char* get_cpu_name() override;
  unsigned long get_cpu_speed_mhz() override;
  unsigned long get_cpu_mem_kb() override;
  unsigned long get_physical_cpu_mem_mb() override;
  unsigned long get_available_cpu_mem_kb() override;
  unsigned int get_cpu_logical_cores() override;
  unsigned int get_cpu_physical_cores() override;
  const char* get_os_name() override;
  bool _init_system_info();
  bool _init_cpu_name();
  bool _init_cpu_speed_mhz();
  bool _init_cpu_mem_size();
  bool _init_os_name();
  bool _init_cpu_info();
  bool linux_read_cpu_name(char* name);
  bool linux_read_cpu_speed_mhz_current(unsigned long* mhz);
  bool linux_read_mem_size_mb(unsigned long* mb);
  bool linux_read_os_name(char* name);
  bool linux_arm64_rpi_read_cpu_name(char* name);

  // OpenGL information (overlay/opengl_info.cpp).
  const char* opengl_get_vendor() override;
  const char* opengl_get_renderer() override;
  const char* opengl_get_version() override;
  int opengl_get_version_major() override;
  int opengl_get_version_minor() override;
  unsigned long opengl_get_num_extensions() override;
  const char* opengl_get_extension(unsigned long index) override;
  bool opengl_init(zev::Renderer* renderer, zev::RenderWindow* window) override;
  bool opengl_get_capability_4i(const char* name, int* v0, int* v1, int* v2, int* v3) override;

  // NVIDIA back-ends (plugin/nvidia.cpp, over backends/nvidia/): the
  // discoveries register and count the records the back-ends fill; the
  // other members delegate.
  bool nvml_initialize();
  bool nvml_terminate();
  bool nvml_update_dynamic_data() override;
  bool nvml_update_power_usage(unsigned long index) override;
  bool nvml_update_process_utilization(unsigned long index) override;
  bool nvml_get_pcie_throughput(unsigned long index) override;
  bool linux_nv_smi_init_gpus();
  bool linux_nv_smi_read_gpu_core_clock(unsigned long index, int* mhz);
  bool linux_nv_smi_read_vram_clock(unsigned long index, int* mhz);
  bool linux_nv_smi_read_gpu_usage(unsigned long index, int* percent);
  bool linux_nv_smi_read_vram_usage(unsigned long index, int* percent);
  bool linux_nv_smi_read_gpu_temperature(unsigned long index, int* celsius);
  bool linux_nv_smi_read_vram_temperature(unsigned long index, int* celsius);
  bool linux_nv_smi_read_gpu_power(unsigned long index, int* watts);
  bool linux_nv_smi_read_gpu_fan_speed(unsigned long index, int* percent);
  bool linux_nv_smi_read_num_gpus(unsigned long* count);
  bool linux_nv_smi_read_gpu_name(unsigned long index, char* name);
  bool linux_nv_smi_read_driver_version(unsigned long index, char* version);
  bool linux_nv_smi_read_vbios_version(unsigned long index, char* version);
  bool linux_nv_smi_read_gpu_pci_device_id(unsigned long index, unsigned long* vendor,
                                           unsigned long* device);
  bool linux_nv_smi_read_gpu_pci_subdevice_id(unsigned long index, unsigned long* subvendor,
                                              unsigned long* subdevice);
  bool linux_nv_smi_read_gpu_pci_bus_id(unsigned long index, unsigned long* bus);
  bool linux_nv_smi_read_gpu_vram_size(unsigned long index, int* mb);
  bool linux_nv_smi_read_gpu_vram_used(unsigned long index, int* mb);
  // Video memory in use into the record (MiB): with the sensors on the
  // nvidia-smi path (plugin/dispatch.cpp).
  bool gpu_read_vram_used(unsigned long index);
  // ROP count from the kernel driver: 0 with *rops set, or the negative code
  // of the step that failed (-1 to -6), *rops untouched.
  int linux_nv_read_rop_counter(unsigned long gpu_index, int* rops);
  // nvidia-settings readers; nothing in discovery or refresh calls them.
  bool linux_nvidia_get_driver_version(unsigned long index, float* version);
  bool linux_nvidia_gpu_get_core_temp(unsigned long index, float* celsius);
  bool linux_nvidia_gpu_get_fan_speed(unsigned long index, float* percent);
  bool linux_nvidia_gpu_get_usages(unsigned long index, float* gpu_usage, float* memory_usage);
  bool linux_nvidia_is_sensor_available(unsigned long index, const char* name);

  // DRM back-end: calls into backends/drm/drm_backend.h (plugin/drm_members.cpp).
  bool linux_drm_init_gpus();
  bool linux_drm_gpu_probe(unsigned long card);
  bool linux_drm_gpu_probe_hwmon(unsigned long card, unsigned long hwmon);
  bool linux_drm_read_vendor_id(unsigned long card, unsigned long* id);
  bool linux_drm_read_device_id(unsigned long card, unsigned long* id);
  bool linux_drm_read_revision_id(unsigned long card, unsigned long* id);
  bool linux_drm_read_subvendor_id(unsigned long card, unsigned long* id);
  bool linux_drm_read_subdevice_id(unsigned long card, unsigned long* id);
  bool linux_drm_read_vbios(unsigned long card, char* text);
  bool linux_drm_read_gpu_usage(unsigned long card, int* percent);
  bool linux_drm_read_driver_name(unsigned long card, unsigned long hwmon, char* text);
  bool linux_drm_read_gpu_core_clock(unsigned long card, unsigned long hwmon, int* mhz);
  bool linux_drm_read_vram_clock(unsigned long card, unsigned long hwmon, int* mhz);
  bool linux_drm_read_gpu_temperature(unsigned long card, unsigned long hwmon, unsigned long sensor,
                                      int* celsius);
  bool linux_drm_read_gpu_fan_speed(unsigned long card, unsigned long hwmon, unsigned long sensor,
                                    int* rpm);
  bool linux_drm_read_gpu_power(unsigned long card, unsigned long hwmon, unsigned long sensor,
                                int* watts);

  // Raspberry Pi back-end (backends/rpi/rpi_backend.h; plugin/rpi_members.cpp).
  // `model`: the board model; on boards other than a Pi 3, 4 or 5 nothing is added.
  bool linux_arm64_rpi_init_gpus(const char* model);
  bool linux_arm64_rpi_read_gpu_core_clock(float* mhz);
  bool linux_arm64_rpi_read_gpu_usage_v2(zev::GPU* gpu, float* percent);
  bool linux_arm64_rpi_read_gpu_usage_v1(zev::GPU* gpu, float* percent);
  bool linux_arm64_rpi_read_gpu_core_temp(float* celsius);

  // Command-line legacy readers: calls into backends/legacy/legacy_backend.h
  // (plugin/legacy_members.cpp).
  bool linux_read_num_gpus(unsigned long* count);
  bool linux_read_gpu_pci_codes(unsigned long index, unsigned long* vendor, unsigned long* device);
  bool linux_read_gpu_pci_rev(unsigned long index, char* revision);
  bool linux_read_gpu_name(unsigned long index, char* name);
  bool linux_amd_is_gpu_core_temp_sensor_available(unsigned long adapter);
  bool linux_amd_gpu_get_core_temp(unsigned long adapter, float* celsius);
  bool linux_amd_gpu_get_bios_string(unsigned long adapter, char* text);

  // --- fields; the lists come first ---
  zev::GPU* gpus[kMaxGpus];
  uint64_t num_gpus;
  zev::GPU* nvml_gpus[kMaxGpus];
  // What the DRM scan found of each record's extra sensors, by the record's
  // index (its list slot at insertion).
  drm_backend::CardSensors drm_extra_sensors[kMaxGpus];
  uint64_t nvml_gpus_count;
  // Written by the host's thread, read by the update thread on each pass.
  std::atomic<bool> update_thread_quit;
  std::atomic<bool> update_enabled;
  std::atomic<uint64_t> update_period_ms;
  char cpu_name[128];
  uint32_t cpu_logical_cores;
  uint32_t cpu_physical_cores;
  uint64_t cpu_speed_mhz;
  uint64_t cpu_mem_kb;
  uint64_t cpu_reserved;  // cleared with the CPU fields, not read
  uint64_t physical_cpu_mem_mb;
  char os_name[128];
  cDisplayDeviceId display_devices[25];

  // Overlay state.
  zev::Viewport viewport;
  zev::Camera* camera;
  zev::Graph2d* gpu_graph;
  zev::Graph2d* cpu_graph;
  uint64_t grid_subdiv_x;
  uint64_t grid_subdiv_y;
  zev::Grid* grid;
  uint64_t num_curve_points;
  zev::GpuProgram* line_program;
  zev::MeshQuad* bkg_quad;
  zev::MeshQuad* bar_quad;
  zev::GpuProgram* quad_program;
  zev::vec4 bkg_quad_color;
  zev::vec4 bkg_quad_vertex_colors[4];
  bool gl3_shaders;
  std::string overlay_text0;
  std::string overlay_text1;
  std::string overlay_text2;

  pthread_t update_thread;
  uint64_t num_monitorable_gpus;
  uint64_t num_gpus_drm;
  uint64_t num_nv_smi_detected;
  uint64_t num_nvml_detected;

  // OpenGL snapshot of the host's context.
  char gl_vendor[128];
  char gl_renderer[128];
  char gl_version[128];
  int32_t gl_version_major;
  int32_t gl_version_minor;
  uint64_t num_gl_extensions;
  char (*gl_extensions)[64];
  int32_t gl_caps[59];

  // The NVML library (null when it is not loaded), its entry points and the
  // per-process utilisation buffers (backends/nvidia/nvidia_backend.h).
  void* nvml_lib_handle;
  nvidia_backend::NvmlState nvml_state;
};

// Entry point of the update thread (plugin/update.cpp).
void* GpuMonitoring_Update_Thread(void* monitor);
