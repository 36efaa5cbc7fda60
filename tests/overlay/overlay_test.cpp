// The overlay drawn for real: the plug-in loaded as a host loads it, on a
// recorded machine, drawing into the reference host's offscreen OpenGL
// context (llvmpipe where there is no GPU); the image is checked by probes.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "test_support.h"
#include "zev/gl_host.h"
#include "zev/gpu.h"
#include "zev/renderer.h"
#include "zev/scene.h"

#define GL_GLEXT_PROTOTYPES 1
#include <GL/gl.h>
#include <GL/glext.h>

namespace {

using namespace testing_support;

constexpr int kW = 400, kH = 200;
const std::string kBusy = "sys/class/drm/card1/device/gpu_busy_percent";

// A monitor initialised on a machine, with its overlay resources made in an
// OpenGL context of the version asked.
struct Overlay {
  // The monitor reads the machine; the context is made after leaving it
  // (the driver's threads would keep the process from returning).
  explicit Overlay(const std::string& dir, int gl_major = 3) {
    {
      MachineScope scope(dir);
      if (!scope.ok() || !plugin.ok()) return;
      monitor = plugin.create();
      monitor->initialize();
    }
    zev::GlHostOptions options;
    options.width = kW;
    options.height = kH;
    options.gl_major = gl_major;
    options.gl_minor = gl_major == 2 ? 1 : 3;
    host = zev::GlHost::create(options, &error);
    if (!host) return;
    monitor->set_viewport(0, 0, kW, kH);
    initialized = monitor->graph2d_init(host->renderer());
    monitor->set_viewport(0, 0, kW, kH);
    // Curves and texts in magenta, told apart from the green bars.
    for (unsigned long i = 0; i < monitor->get_num_gpus(); ++i)
      monitor->set_gpu_data_color(i, 1.0f, 0.0f, 1.0f, 1.0f);
    monitor->draw_set_bkg_quad_color(0.2f, 0.4f, 0.6f, 0.25f);
    host->clear(0.0f, 0.0f, 0.0f, 1.0f);
  }
  ~Overlay() {
    if (monitor == nullptr) return;
    if (host) monitor->graph2d_cleanup(host->renderer());
    monitor->terminate();
    plugin.destroy_raw(monitor);
  }
  bool ok() const { return host != nullptr && initialized; }
  // Pixel (x, y) of the image, y from the top.
  std::array<int, 4> pixel(const std::vector<unsigned char>& image, int x, int y) const {
    const unsigned char* p = &image[(static_cast<size_t>(y) * kW + x) * 4];
    return {p[0], p[1], p[2], p[3]};
  }
  // Pixels of a region (y from the top) in the curve and text colour.
  int magenta_in(const std::vector<unsigned char>& image, int x0, int y0, int x1, int y1) const {
    int n = 0;
    for (int y = y0; y < y1; ++y)
      for (int x = x0; x < x1; ++x) {
        const auto p = pixel(image, x, y);
        n += p[0] > 120 && p[2] > 120 && p[1] < p[0] / 2;
      }
    return n;
  }

  TraceCapture traces;
  PluginHandle plugin;
  zev::GpuMonitor* monitor = nullptr;
  std::unique_ptr<zev::GlHost> host;
  std::string error;
  bool initialized = false;
};

// The last pure-green pixel of the bar row (x from the left), or -1.
int bar_end(const Overlay& o, const std::vector<unsigned char>& image, int row_from_bottom) {
  int last = -1;
  for (int x = 0; x < kW; ++x) {
    const auto p = o.pixel(image, x, kH - 1 - row_from_bottom);
    if (p[1] > 200 && p[0] < 60 && p[2] < 60) last = x;
  }
  return last;
}

// The background quad's colour fills its rectangle (away from grid lines),
// and the usage bar of the one GPU is as long as its usage: not clamped.
// One OpenGL version a test: a process makes 2.1 contexts or newer ones.
void background_and_bars(int gl) {
  {
    for (const auto& [usage, end] : std::vector<std::pair<const char*, int>>{
             {"0\n", -1}, {"37\n", 20 + 37 - 1}, {"150\n", 20 + 150 - 1}}) {
      SCOPED_TRACE(std::string("GL ") + std::to_string(gl) + ", usage " + usage);
      TempMachine machine({{kBusy, usage}, {"sequences", ""}}, "amd-rdna3-rx7900xtx");
      Overlay o(machine.dir(), gl);
      ASSERT_TRUE(o.ok()) << o.error;
      ASSERT_TRUE(o.monitor->draw_gpu_data_v1(o.host->renderer(), 10, 10, kW - 20, kH - 20, true));
      const std::vector<unsigned char> image = o.host->read_pixels();
      // One GPU: the bar's row is 85 pixels below the rectangle's top plus 10.
      EXPECT_NEAR(bar_end(o, image, (kH - 20) + 10 + 10 - 85), end, 1);
      // (1 - a) * quad + a * black, where no line passes.
      int matches = 0;
      for (int x = 50; x < 350; x += 7) {
        const auto p = o.pixel(image, x, 145);  // between grid lines
        matches +=
            std::abs(p[0] - 38) <= 3 && std::abs(p[1] - 77) <= 3 && std::abs(p[2] - 115) <= 3;
      }
      EXPECT_GT(matches, 20);
    }
  }
}

TEST(OverlayGraphs, BackgroundAndUsageBarsWithGlsl150) { background_and_bars(3); }
TEST(OverlayGraphs, BackgroundAndUsageBarsWithGlsl120) { background_and_bars(2); }

// The text paths: pixels in the texts' colour where each puts its first line,
// none where a skipped GPU's text would be.
TEST(OverlayText, EachPathWritesItsLines) {
  Overlay o("amd-rdna3-rx7900xtx");
  ASSERT_TRUE(o.ok()) << o.error;
  zev::GlHost& h = *o.host;
  zev::Renderer* r = h.renderer();
  struct Path {
    const char* name;
    std::function<bool()> draw;
    int x0, y0, x1, y1;  // where the first line must show (y from the top)
  };
  const int top = kH - (10 + kH - 20);  // the rectangle's top edge, from the top
  const Path paths[] = {
      {"simplified",
       [&] { return o.monitor->draw_gpu_info_simplified(r, h.window(), h.font(), 20, 20, 16); }, 20,
       20, 300, 36},
      {"v2",
       [&] {
         return o.monitor->draw_gpu_data_v2(r, 10, 10, kW - 20, kH - 20, h.window(), h.font());
       },
       20, top, 300, top + 15},
      {"v3",
       [&] {
         return o.monitor->draw_gpu_data_v3(r, 10, 10, kW - 20, kH - 20, h.font(), h.text_program(),
                                            h.text_camera(), 1.0f, 30, 100, 16);
       },
       30, 100, 300, 116},
      {"v4",
       [&] {
         return o.monitor->draw_gpu_data_v4(r, 10, 10, kW - 20, kH - 20, h.freetype(), h.font(),
                                            h.text_program(), h.text_camera(), 1.0f, 30, 100, 18);
       },
       30, 100, 300, 118},
      {"v5",
       [&] {
         return o.monitor->draw_gpu_data_v5(r, 10, 10, kW - 20, kH - 20, h.font(), h.text_program(),
                                            h.text_camera(), 1.0f, 0, 0, 16, true);
       },
       40, 40, 300, 56},
  };
  for (const Path& p : paths) {
    SCOPED_TRACE(p.name);
    h.clear(0, 0, 0, 1);
    ASSERT_TRUE(p.draw());
    const std::vector<unsigned char> image = h.read_pixels();
    EXPECT_GT(o.magenta_in(image, p.x0, p.y0, p.x1, p.y1), 30);
  }
  // v5 without usage: the temperature line, no usage line and no bar.
  h.clear(0, 0, 0, 1);
  ASSERT_TRUE(o.monitor->draw_gpu_data_v5(r, 10, 10, kW - 20, kH - 20, h.font(), h.text_program(),
                                          h.text_camera(), 1.0f, 0, 0, 16, false));
  const std::vector<unsigned char> image = h.read_pixels();
  EXPECT_GT(o.magenta_in(image, 40, 40, 300, 56), 30);
  EXPECT_EQ(o.magenta_in(image, 40, 56, 300, 72), 0);
  EXPECT_EQ(bar_end(o, image, (kH - 20) + 10 + 10 - 85), -1);
}

// Two GPUs: no bar for the one whose usage cannot be read, and no text for
// the one that cannot be monitored at all.
TEST(OverlayGraphs, GpusWithoutUsageOrSensorsAreLeftOut) {
  const std::string card4 = "sys/class/drm/card4/device/";
  for (bool no_sensor_at_all : {false, true}) {
    SCOPED_TRACE(no_sensor_at_all ? "second GPU not monitorable" : "second GPU without usage");
    TempMachine machine(Files{}, "amd-multi-card-gaps");
    namespace fs = std::filesystem;
    fs::remove(machine.dir() + "/" + card4 + "gpu_busy_percent");
    fs::remove(machine.dir() + "/sys/class/drm/card9");  // two GPUs
    if (no_sensor_at_all) {
      for (const auto& hwmon : fs::directory_iterator(machine.dir() + "/" + card4 + "hwmon"))
        for (const char* t : {"temp1_input", "temp2_input", "temp3_input"})
          fs::remove(hwmon.path() / t);
    }
    Overlay o(machine.dir());
    ASSERT_TRUE(o.ok()) << o.error;
    ASSERT_EQ(o.monitor->get_num_gpus(), 2u);
    zev::GlHost& h = *o.host;
    ASSERT_TRUE(o.monitor->draw_gpu_data_v5(h.renderer(), 10, 10, kW - 20, kH - 20, h.font(),
                                            h.text_program(), h.text_camera(), 1.0f, 0, 0, 16,
                                            true));
    const std::vector<unsigned char> image = h.read_pixels();
    // Rows of two GPUs: 20 pixels up, 30 apart.
    EXPECT_NEAR(bar_end(o, image, (kH - 20) + 10 + 20 - 85), 20 + 41 - 1, 1);
    EXPECT_EQ(bar_end(o, image, (kH - 20) + 10 + 20 - 85 - 30), -1);
    // GPU 1's temperature and usage lines, then GPU 2's temperature line.
    EXPECT_GT(o.magenta_in(image, 40, 40, 300, 56), 30);
    EXPECT_EQ(o.magenta_in(image, 40, 72, 300, 88) > 30, !no_sensor_at_all);
  }
}

TEST(OverlayLifecycle, InitCleanupAndRefusals) {
  Overlay o("amd-rdna3-rx7900xtx");
  ASSERT_TRUE(o.ok()) << o.error;
  zev::Renderer* r = o.host->renderer();
  zev::Graph2d* graph = zev::Graph2d::created(0);
  ASSERT_NE(graph, nullptr);
  EXPECT_EQ(graph->get_num_curves(), 1u);
  EXPECT_TRUE(o.monitor->graph2d_init(r));  // a second init makes nothing new
  EXPECT_EQ(zev::Graph2d::created(0), graph);
  EXPECT_EQ(zev::Graph2d::created(2), nullptr);
  EXPECT_TRUE(o.monitor->graph2d_cleanup(r));
  EXPECT_EQ(zev::Graph2d::created(0), nullptr);
  EXPECT_FALSE(o.monitor->draw_gpu_data_v1(r, 10, 10, 100, 100, true));
  EXPECT_TRUE(o.monitor->graph2d_cleanup(r));
  EXPECT_FALSE(o.monitor->graph2d_init(nullptr));
  EXPECT_TRUE(o.monitor->graph2d_init(r));
  EXPECT_TRUE(o.monitor->draw_gpu_data_v1(r, 10, 10, 10, 5, true));  // cells of 0: no division
  EXPECT_TRUE(o.monitor->draw_gpu_data_v1(r, 10, 10, 300, 150, false));
  // No monitorable GPU: nothing to draw.
  Overlay none("desktop-no-gpu");
  EXPECT_FALSE(none.initialized);
  EXPECT_TRUE(o.traces.texts(zev::TRACE_ERROR).empty());
}

}  // namespace

namespace {

// The snapshot against what the same context answers to OpenGL directly.
void snapshot_matches_the_context(int gl) {
  {
    PluginHandle plugin;
    zev::GpuMonitor* monitor = plugin.create();
    {
      MachineScope machine("desktop-no-gpu");
      monitor->initialize();
    }
    std::string error;
    zev::GlHostOptions options;
    options.gl_major = gl;
    options.gl_minor = gl == 2 ? 1 : 3;
    std::unique_ptr<zev::GlHost> host = zev::GlHost::create(options, &error);
    ASSERT_TRUE(host) << error;
    EXPECT_FALSE(monitor->opengl_init(nullptr, nullptr));
    ASSERT_TRUE(monitor->opengl_init(host->renderer(), host->window()));
    EXPECT_STREQ(monitor->opengl_get_renderer(),
                 reinterpret_cast<const char*>(glGetString(GL_RENDERER)));
    EXPECT_STREQ(monitor->opengl_get_version(),
                 reinterpret_cast<const char*>(glGetString(GL_VERSION)));
    EXPECT_EQ(monitor->opengl_get_version_major(), gl == 2 ? 2 : 4);
    GLint texture = 0, viewport[2] = {0, 0}, extensions = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &texture);
    glGetIntegerv(GL_MAX_VIEWPORT_DIMS, viewport);
    int v[4] = {9, 9, 9, 9};
    monitor->opengl_get_capability_4i("GL_MAX_TEXTURE_SIZE", &v[0], &v[1], &v[2], &v[3]);
    EXPECT_EQ(v[0], texture);
    EXPECT_EQ(v[1] + v[2] + v[3], 0);
    // Only the width of the two viewport limits.
    monitor->opengl_get_capability_4i("GL_MAX_VIEWPORT_DIMS", &v[0], &v[1], &v[2], &v[3]);
    EXPECT_EQ(std::make_pair(v[0], v[1]), std::make_pair(viewport[0], 0));
    monitor->opengl_get_capability_4i("gl_max_texture_size", &v[0], &v[1], &v[2], &v[3]);
    EXPECT_EQ(v[0] + v[1] + v[2] + v[3], 0);
    if (gl == 3) {
      glGetIntegerv(GL_NUM_EXTENSIONS, &extensions);
      GLint size[3] = {0, 0, 0};
      for (GLuint i = 0; i < 3; ++i) glGetIntegeri_v(GL_MAX_COMPUTE_WORK_GROUP_SIZE, i, &size[i]);
      monitor->opengl_get_capability_4i("GL_MAX_COMPUTE_WORK_GROUP_SIZE", &v[0], &v[1], &v[2],
                                        &v[3]);
      EXPECT_EQ(std::vector<int>(v, v + 4), (std::vector<int>{size[0], size[1], size[2], 0}));
      EXPECT_EQ(monitor->opengl_get_num_extensions(), static_cast<unsigned long>(extensions));
      EXPECT_STREQ(monitor->opengl_get_extension(0),
                   reinterpret_cast<const char*>(glGetStringi(GL_EXTENSIONS, 0)));
    } else {
      const std::string all = reinterpret_cast<const char*>(glGetString(GL_EXTENSIONS));
      ASSERT_GT(monitor->opengl_get_num_extensions(), 10u);
      EXPECT_EQ(all.rfind(monitor->opengl_get_extension(0), 0), 0u);
    }
    EXPECT_EQ(monitor->opengl_get_extension(monitor->opengl_get_num_extensions()), nullptr);
    // terminate frees the names and keeps their count.
    const unsigned long count = monitor->opengl_get_num_extensions();
    monitor->terminate();
    EXPECT_EQ(monitor->opengl_get_extension(0), nullptr);
    EXPECT_EQ(monitor->opengl_get_num_extensions(), count);
    plugin.destroy_raw(monitor);
  }
}

TEST(OpenGlInfo, SnapshotOfA33Context) { snapshot_matches_the_context(3); }
TEST(OpenGlInfo, SnapshotOfA21Context) { snapshot_matches_the_context(2); }

// gpumon's overlay and snapshot, as a user runs them.
TEST(GpumonOverlay, ImagesSnapshotsAndClearErrors) {
  TempMachine out(Files{{"unwritable/.keep", ""}});
  const std::string png = out.dir() + "/overlay.png";
  machine::RunResult r = run_gpumon({"--machine", machine_dir("amd-rdna3-rx7900xtx"), "--overlay",
                                     png, "--size", "320x160", "--gl", "2.1", "--text", "v4"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(read_file(png).substr(1, 3), "PNG");
  r = run_gpumon({"--gl-info", "--json"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const nlohmann::json doc = nlohmann::json::parse(r.out);
  EXPECT_EQ(doc["limits"].size(), 55u);
  EXPECT_GT(doc["limits"]["GL_MAX_TEXTURE_SIZE"].get<int>(), 0);
  EXPECT_GT(doc["extensions"].size(), 10u);
  const std::vector<std::tuple<std::vector<std::string>, int, std::string>> errors = {
      {{"--overlay", png, "--size", "0x100"}, 2, "--size needs WIDTHxHEIGHT"},
      {{"--overlay", png, "--size", "-5x100"}, 2, "--size needs WIDTHxHEIGHT"},
      {{"--overlay", png, "--gl", "4.6"}, 2, "--gl is 3.3 or 2.1"},
      {{"--overlay", png, "--text", "v9"}, 2, "--text is simplified"},
      {{"--overlay", png, "--size", "100000x100"}, 4, "above this context's limit"},
      {{"--overlay", out.dir() + "/missing/overlay.png"},
       4,
       "overlay.png: No such file or directory"},
      {{"--overlay", png}, 1, "no GPU to show"},  // the real machine's view: no DRM card here
  };
  for (const auto& [args, code, message] : errors) {
    std::vector<std::string> full = args;
    if (code != 1) full.insert(full.begin(), {"--machine", machine_dir("amd-rdna3-rx7900xtx")});
    std::remove(png.c_str());
    r = run_gpumon(full);
    EXPECT_EQ(r.exit_code, code) << r.err;
    EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
    EXPECT_EQ(read_file(png), "") << "nothing half-written";
  }
  // No EGL at all: glvnd finds no vendor library.
  setenv("__EGL_VENDOR_LIBRARY_FILENAMES", "/nonexistent.json", 1);
  const machine::RunResult none = run_gpumon({"--gl-info"});
  unsetenv("__EGL_VENDOR_LIBRARY_FILENAMES");
  EXPECT_EQ(none.exit_code, 4);
  EXPECT_NE(none.err.find("no OpenGL context: no EGL display could be opened"), std::string::npos)
      << none.err;
}

}  // namespace
