#include "overlay.h"

#include "exit_codes.h"
#include "json_report.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "zev/font.h"
#include "zev/gl_host.h"
#include "zev/gl_limits.h"
#include "zev/gpu.h"
#include "zev/scene.h"

namespace {

// The limits opengl_get_capability_4i answers, in the order of the
// monitor's gl_caps.
std::vector<zev::GlLimit> limits_in_slot_order() {
  std::vector<zev::GlLimit> limits(std::begin(zev::kGlLimits), std::end(zev::kGlLimits));
  std::sort(limits.begin(), limits.end(), [](const zev::GlLimit& a, const zev::GlLimit& b) {
    return a.first_slot < b.first_slot;
  });
  return limits;
}

// Colours of the GPUs' curves and texts, in GPU order.
const float kPalette[][4] = {{0.3f, 1.0f, 0.3f, 1.0f},
                             {1.0f, 0.75f, 0.2f, 1.0f},
                             {0.35f, 0.7f, 1.0f, 1.0f},
                             {1.0f, 0.4f, 0.6f, 1.0f}};

zev::GlHostOptions host_options(const Options& options) {
  zev::GlHostOptions host;
  host.width = options.overlay_width;
  host.height = options.overlay_height;
  host.gl_major = options.gl_major;
  host.gl_minor = options.gl_minor;
  return host;
}

// Curve k of the GPU graph holds the usage history of the k-th monitorable
// GPU; the framework's first graph is the GPU graph graph2d_init made.
void fill_curves(zev::GpuMonitor* monitor, const UsageHistory& history) {
  zev::Graph2d* graph = zev::Graph2d::created(0);
  if (graph == nullptr) return;
  unsigned long curve = 0;
  for (unsigned long i = 0; i < monitor->get_num_gpus() && i < history.size(); ++i) {
    if (!monitor->get_gpu(i)->monitorable) continue;
    zev::Curve* c = graph->get_curve(curve++);
    if (c == nullptr) break;
    for (float value : history[i]) c->add_point(value < 0.0f ? 0.0f : value);
  }
}

bool draw(zev::GpuMonitor* monitor, zev::GlHost* host, const std::string& text) {
  zev::Renderer* r = host->renderer();
  const int w = host->width() - 20;
  const int h = host->height() - 20;
  zev::Font* font = host->font();
  zev::GpuProgram* program = host->text_program();
  zev::Camera* camera = host->text_camera();
  if (text == "simplified") {
    return monitor->draw_gpu_data_v1(r, 10, 10, w, h, true) &&
           monitor->draw_gpu_info_simplified(r, host->window(), font, 20, 20, 16);
  }
  if (text == "v2") return monitor->draw_gpu_data_v2(r, 10, 10, w, h, host->window(), font);
  if (text == "v3")
    return monitor->draw_gpu_data_v3(r, 10, 10, w, h, font, program, camera, 1.0f, 20, 20, 16);
  if (text == "v4")
    return monitor->draw_gpu_data_v4(r, 10, 10, w, h, host->freetype(), font, program, camera, 1.0f,
                                     20, 20, 18);
  return monitor->draw_gpu_data_v5(r, 10, 10, w, h, font, program, camera, 1.0f, 0, 0, 16, true);
}

}  // namespace

void record_usages(zev::GpuMonitor* monitor, UsageHistory* history) {
  history->resize(monitor->get_num_gpus());
  for (unsigned long i = 0; i < monitor->get_num_gpus(); ++i)
    (*history)[i].push_back(monitor->get_gpu(i)->core_usage[0]);
}

int render_overlay(zev::GpuMonitor* monitor, const Options& options, const UsageHistory& history) {
  std::string error;
  std::unique_ptr<zev::GlHost> host = zev::GlHost::create(host_options(options), &error);
  if (!host) {
    std::fprintf(stderr, "gpumon: cannot render the overlay: %s\n", error.c_str());
    return kExitOpenGl;
  }
  monitor->set_viewport(0, 0, host->width(), host->height());
  if (!monitor->graph2d_init(host->renderer())) {
    std::fprintf(stderr, "gpumon: no overlay: the monitor has no GPU to show\n");
    return kExitNotFound;
  }
  // The camera takes its projection from a viewport set after initialisation.
  monitor->set_viewport(0, 0, host->width(), host->height());
  for (unsigned long i = 0; i < monitor->get_num_gpus(); ++i) {
    const float* c = kPalette[i % (sizeof kPalette / sizeof kPalette[0])];
    monitor->set_gpu_data_color(i, c[0], c[1], c[2], c[3]);
  }
  // Mostly the quad's own colour over what lies behind (see the blending
  // codes in zev/renderer.h).
  monitor->draw_set_bkg_quad_color(0.08f, 0.1f, 0.16f, 0.15f);
  fill_curves(monitor, history);

  host->clear(0.02f, 0.02f, 0.03f, 1.0f);
  const bool drew = draw(monitor, host.get(), options.text);
  const bool written = drew && host->write_png(options.overlay, &error);
  monitor->graph2d_cleanup(host->renderer());
  if (!drew) {
    std::fprintf(stderr, "gpumon: the overlay could not be drawn\n");
    return kExitOpenGl;
  }
  if (!written) {
    std::fprintf(stderr, "gpumon: %s\n", error.c_str());
    return kExitFile;
  }
  return kExitOk;
}

int show_gl_info(zev::GpuMonitor* monitor, const Options& options) {
  zev::GlHostOptions small = host_options(options);
  small.width = small.height = 16;
  std::string error;
  std::unique_ptr<zev::GlHost> host = zev::GlHost::create(small, &error);
  if (!host) {
    std::fprintf(stderr, "gpumon: no OpenGL context: %s\n", error.c_str());
    return kExitOpenGl;
  }
  monitor->opengl_init(host->renderer(), host->window());
  nlohmann::ordered_json doc;
  doc["schema_version"] = kJsonSchemaVersion;
  doc["vendor"] = monitor->opengl_get_vendor();
  doc["renderer"] = monitor->opengl_get_renderer();
  doc["version"] = monitor->opengl_get_version();
  doc["version_major"] = monitor->opengl_get_version_major();
  doc["version_minor"] = monitor->opengl_get_version_minor();
  nlohmann::ordered_json limits = nlohmann::ordered_json::object();
  const std::vector<zev::GlLimit> shown = limits_in_slot_order();
  for (const auto& [name, slot, count] : shown) {
    int v[4] = {0, 0, 0, 0};
    monitor->opengl_get_capability_4i(name, &v[0], &v[1], &v[2], &v[3]);
    limits[name] =
        count == 1 ? nlohmann::ordered_json(v[0]) : nlohmann::ordered_json({v[0], v[1], v[2]});
  }
  doc["limits"] = limits;
  nlohmann::ordered_json extensions = nlohmann::ordered_json::array();
  for (unsigned long i = 0; i < monitor->opengl_get_num_extensions(); ++i) {
    const char* name = monitor->opengl_get_extension(i);
    if (name != nullptr) extensions.push_back(name);
  }
  doc["extensions"] = extensions;
  if (options.json) {
    std::printf("%s\n", doc.dump(2).c_str());
    return kExitOk;
  }
  std::printf("OpenGL vendor:   %s\n", monitor->opengl_get_vendor());
  std::printf("OpenGL renderer: %s\n", monitor->opengl_get_renderer());
  std::printf("OpenGL version:  %s (%d.%d)\n\nLimits:\n", monitor->opengl_get_version(),
              monitor->opengl_get_version_major(), monitor->opengl_get_version_minor());
  for (const auto& [name, slot, count] : shown) {
    int v[4] = {0, 0, 0, 0};
    monitor->opengl_get_capability_4i(name, &v[0], &v[1], &v[2], &v[3]);
    if (count == 1) {
      std::printf("    %-46s %d\n", name, v[0]);
    } else {
      std::printf("    %-46s %d, %d, %d\n", name, v[0], v[1], v[2]);
    }
  }
  std::printf("\nExtensions (%lu):\n", monitor->opengl_get_num_extensions());
  for (const auto& name : extensions) std::printf("    %s\n", name.get<std::string>().c_str());
  return kExitOk;
}
