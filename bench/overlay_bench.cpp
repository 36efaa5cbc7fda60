// Cost of the overlay: one frame of draw_gpu_data_v1 and draw_gpu_data_v5 at
// 800x400 in the reference host's offscreen context (llvmpipe without a
// GPU), against the host drawing the same primitives itself; and the heap
// allocations made by the plug-in's own code during a frame (goal: none).
//
//   build/bin/overlay_bench [--benchmark_filter=...]
//
// Runs on the recorded RX 7900 XTX machine (root or user namespaces needed).
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <link.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#define GL_GLEXT_PROTOTYPES 1
#include <GL/gl.h>

#include "heap_counter.h"
#include "machine.h"
#include "overlay/shader_sources.h"
#include "zev/font.h"
#include "zev/gl_host.h"
#include "zev/gpu_monitor.h"
#include "zev/gpu_program.h"
#include "zev/renderer.h"
#include "zev/scene.h"
#include "zev/trace.h"

namespace {

constexpr int kW = 800, kH = 400;

void quiet(zev::TraceLevel, const char*, void*) {}

// The address range of the plug-in's loaded segments.
int find_plugin(struct dl_phdr_info* info, size_t, void*) {
  if (std::strstr(info->dlpi_name, "plugin_zev_gpumon_x64.so") == nullptr) return 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& h = info->dlpi_phdr[i];
    if (h.p_type != PT_LOAD || (h.p_flags & PF_X) == 0) continue;
    const char* begin = reinterpret_cast<const char*>(info->dlpi_addr + h.p_vaddr);
    heap_counter::watch_callers(begin, begin + h.p_memsz);
  }
  return 1;
}

// The monitor on the recorded machine, with its overlay made in a context.
struct Scene {
  void* library = nullptr;
  zev::GpuMonitor* monitor = nullptr;
  int (*destroy)(void*) = nullptr;
  std::unique_ptr<zev::GlHost> host;
  std::string error;

  Scene() {
    zev::set_trace_sink(quiet, nullptr);
    if (!machine::enter(std::string(ZEV_MACHINES_DIR) + "/amd-rdna3-rx7900xtx", &error)) return;
    library = dlopen(ZEV_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
      error = dlerror();
      return;
    }
    dl_iterate_phdr(find_plugin, nullptr);
    auto create = reinterpret_cast<void* (*)()>(dlsym(library, "zev_plugin_create"));
    destroy = reinterpret_cast<int (*)(void*)>(dlsym(library, "zev_plugin_destroy"));
    monitor = static_cast<zev::GpuMonitor*>(create());
    monitor->initialize();
    // The driver's threads would keep the process from leaving the machine.
    machine::leave();
    host = zev::GlHost::create({kW, kH, 3, 3}, &error);
    if (!host) return;
    monitor->set_viewport(0, 0, kW, kH);
    monitor->graph2d_init(host->renderer());
    monitor->set_viewport(0, 0, kW, kH);
    zev::Curve* curve = zev::Graph2d::created(0)->get_curve(0);
    for (int i = 0; i < 600; ++i) curve->add_point(static_cast<float>((i * 7) % 100));
  }
  ~Scene() {
    if (monitor != nullptr) {
      if (host) monitor->graph2d_cleanup(host->renderer());
      monitor->terminate();
      destroy(monitor);
    }
    host.reset();
  }
  bool v1() { return monitor->draw_gpu_data_v1(host->renderer(), 10, 10, kW - 20, kH - 20, true); }
  bool v5() {
    return monitor->draw_gpu_data_v5(host->renderer(), 10, 10, kW - 20, kH - 20, host->font(),
                                     host->text_program(), host->text_camera(), 1.0f, 0, 0, 16,
                                     true);
  }
};

// The same primitives drawn by the host without the plug-in: the objects the
// overlay makes, placed and drawn with the same calls.
struct Direct {
  zev::GlHost* host;
  zev::Camera camera;
  zev::Grid grid;
  zev::MeshQuad background, bar;
  zev::Graph2d graph;
  zev::GpuProgram* line;
  zev::GpuProgram* quad;

  explicit Direct(zev::GlHost* h) : host(h) {
    zev::Renderer* r = host->renderer();
    auto* manager = zev::GpuProgramMgr::get();
    line = manager->create_gpu_program_from_shaders(r, overlay_shaders::kLineVertex150,
                                                    overlay_shaders::kLineFragment150, nullptr,
                                                    nullptr, nullptr, nullptr, nullptr);
    quad = manager->create_gpu_program_from_shaders(r, overlay_shaders::kQuadVertex150,
                                                    overlay_shaders::kQuadFragment150, nullptr,
                                                    nullptr, nullptr, nullptr, nullptr);
    camera.set_viewport(0, 0, kW, kH);
    camera.build_projection_ortho(-kW / 2.0f, kW / 2.0f, -kH / 2.0f, kH / 2.0f, 1, 10, true);
    camera.set_view_params({0, 0, 4, 0}, {0, 0, 0, 1}, {0, 1, 0, 0}, true);
    background.build(nullptr);
    bar.build(nullptr);
    graph.set_viewport(0, 0, kW, kH);
    zev::Curve* curve = graph.create_curve(600);
    for (int i = 0; i < 600; ++i) curve->add_point(static_cast<float>((i * 7) % 100));
  }
  ~Direct() {
    zev::GpuProgramMgr::get()->release_gpu_program(host->renderer(), line, false);
    zev::GpuProgramMgr::get()->release_gpu_program(host->renderer(), quad, false);
  }
  void v1() {
    zev::Renderer* r = host->renderer();
    const float w = kW - 20, h = kH - 20;
    graph.set_x_axis_positions({30, 20, 0, 1}, {770, 20, 0, 1});
    graph.set_y_axis_positions({30, 20, 0, 1}, {30, 380, 0, 1});
    camera.bind(r, true, false, true, true, false);
    r->set_depth_test(false);
    r->set_blending(true);
    r->set_blending_factors(0, 8);
    background.update_params(w, h);
    quad->bind(r);
    quad->set_uniform_4f(r, "color", 0.1f, 0.1f, 0.2f, 0.2f);
    background.set_position(0, 0, 0);
    background.draw(r, 0);
    r->set_blending_factors(2, 1);
    quad->set_uniform_4f(r, "color", 1, 1, 1, 1);
    grid.set_size(w, h);
    grid.set_num_subdiv(39, 38);
    grid.set_orientation_euler_xyz(90, 0, 0);
    grid.draw(r, 0);
    r->set_blending(false);
    r->set_blending(true);
    bar.update_params(100, 10);
    bar.set_position(-340, 115, 0);
    quad->set_uniform_4f(r, "color", 0.1f, 0.2f, 0.4f, 1.0f);
    r->set_blending_factors(1, 1);
    bar.draw(r, 0);
    bar.update_params(50, 6);
    bar.set_position(-365, 115, 0);
    quad->set_uniform_4f(r, "color", 0, 1, 0, 1);
    r->set_blending_factors(8, 0);
    bar.draw(r, 0);
    r->set_blending(false);
    line->bind(r);
    graph.draw(r, 0);
    r->set_depth_test(true);
  }
  void v5() {
    v1();
    zev::Renderer* r = host->renderer();
    zev::Font* font = host->font();
    font->bm_draw_reset();
    font->bm_draw_text_2df(40, 40, 0, 1, 0, 1,
                           "GPU%d: %s - core:%d\xB0"
                           "C",
                           1, "AMD Radeon RX 7900 XTX", 52);
    font->bm_draw_text_2df(160, 56, 0, 1, 0, 1, "usage:%d%%", 7);
    font->set_scale(1, 1, 1);
    host->text_camera()->bind(r, true, false, true, true, false);
    r->set_depth_test(false);
    zev::GpuProgram* saved = r->get_current_gpu_program();
    r->use_gpu_program(nullptr);
    r->set_blending(true);
    r->set_blending_factors(1, 1);
    host->text_program()->bind(r);
    font->get_texture()->bind(r, 0);
    font->stbtt_update_vb(r, false);
    font->stbtt_render_vb(r);
    r->set_depth_test(true);
    r->set_blending(false);
    r->set_current_gpu_program(saved);
  }
};

template <typename Draw>
void frames(benchmark::State& state, Scene& scene, Draw draw) {
  if (!scene.host) {
    state.SkipWithError(("no overlay: " + scene.error).c_str());
    return;
  }
  for (auto _ : state) {
    draw();
    glFinish();
  }
}

void BM_PluginV1(benchmark::State& state) {
  Scene scene;
  frames(state, scene, [&] { scene.v1(); });
}
void BM_DirectV1(benchmark::State& state) {
  Scene scene;
  if (!scene.host) return frames(state, scene, [] {});
  Direct direct(scene.host.get());
  frames(state, scene, [&] { direct.v1(); });
}
void BM_PluginV5(benchmark::State& state) {
  Scene scene;
  frames(state, scene, [&] { scene.v5(); });
  // Allocations of one frame, after the warm-up frames above.
  if (!scene.host) return;
  const int n = 100;
  heap_counter::start();
  for (int i = 0; i < n; ++i) scene.v5();
  const heap_counter::Tally tally = heap_counter::stop();
  state.counters["plugin_allocs_per_frame"] = static_cast<double>(tally.from_range) / n;
  state.counters["all_allocs_per_frame"] = static_cast<double>(tally.allocations) / n;
}
void BM_DirectV5(benchmark::State& state) {
  Scene scene;
  if (!scene.host) return frames(state, scene, [] {});
  Direct direct(scene.host.get());
  frames(state, scene, [&] { direct.v5(); });
}

BENCHMARK(BM_DirectV1)->Unit(benchmark::kMicrosecond)->MinTime(2.0);
BENCHMARK(BM_PluginV1)->Unit(benchmark::kMicrosecond)->MinTime(2.0);
BENCHMARK(BM_DirectV5)->Unit(benchmark::kMicrosecond)->MinTime(2.0);
BENCHMARK(BM_PluginV5)->Unit(benchmark::kMicrosecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
