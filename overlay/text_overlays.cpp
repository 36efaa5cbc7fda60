// The text overlays: name, core temperature and usage of each GPU, written
// through one of the host's text paths over the graphs of draw_gpu_data_v1.
// GPU numbers in the texts count from 1; floats are truncated to ints.
#include "plugin/gpu_monitor_vorn.h"
#include "record/record_slots.h"
#include "zev/font.h"
#include "zev/gpu_program.h"
#include "zev/renderer.h"
#include "zev/scene.h"

namespace {

// Text is drawn with no program of the caller in use; the caller's program
// is put back after.
class ProgramBracket {
 public:
  explicit ProgramBracket(zev::Renderer* renderer)
      : renderer_(renderer), saved_(renderer->get_current_gpu_program()) {
    renderer_->use_gpu_program(nullptr);
  }
  ~ProgramBracket() { renderer_->set_current_gpu_program(saved_); }
  ProgramBracket(const ProgramBracket&) = delete;
  ProgramBracket& operator=(const ProgramBracket&) = delete;

 private:
  zev::Renderer* renderer_;
  zev::GpuProgram* saved_;
};

// Draws a text list built by the caller: the text camera (when given), no
// depth test, the caller's program restored after, additive blending where
// the path asks for it.
template <typename Render>
void render_text(zev::Renderer* renderer, zev::Camera* camera, zev::GpuProgram* program,
                 bool additive, Render render) {
  if (camera != nullptr) camera->bind(renderer, true, false, true, true, false);
  renderer->set_depth_test(false);
  ProgramBracket bracket(renderer);
  if (additive) {
    renderer->set_blending(true);
    renderer->set_blending_factors(1, 1);
  }
  program->bind(renderer);
  render();
  renderer->set_depth_test(true);
  if (additive) renderer->set_blending(false);
}

int as_int(float v) { return static_cast<int>(v); }
int temperature_of(const zev::GPU* gpu) {
  return as_int(gpu->temperatures[gpu_record::kCoreTemperature].current);
}
int usage_of(const zev::GPU* gpu) { return as_int(gpu->core_usage[0]); }

}  // namespace

bool GpuMonitorVorn::draw_gpu_info_simplified(zev::Renderer* renderer, zev::RenderWindow* window,
                                              zev::Font* font, int x, int y, int line_step) {
  if (renderer == nullptr || window == nullptr || font == nullptr) return false;
  const unsigned long n = get_num_gpus();
  if (n == 0) return true;
  ProgramBracket bracket(renderer);
  // Every GPU, monitorable or not, with whatever its record holds.
  for (unsigned long i = 0; i < n; ++i) {
    const zev::GPU* gpu = get_gpu(i);
    font->bitmap_font_linux_renderf(
        renderer, window, x, y, gpu->color.x, gpu->color.y, gpu->color.z, gpu->color.w,
        "- GPU%d: %s (%d cores, %d degC, %d%%)", static_cast<int>(i + 1), gpu->name,
        static_cast<int>(gpu->num_shader_cores), temperature_of(gpu), usage_of(gpu));
    y += line_step;
  }
  return true;
}

bool GpuMonitorVorn::draw_gpu_data_v2(zev::Renderer* renderer, int x, int y, int w, int h,
                                      zev::RenderWindow* window, zev::Font* font) {
  if (get_num_gpus() == 0 || !draw_gpu_data_v1(renderer, x, y, w, h, true)) return false;
  if (window == nullptr || font == nullptr) return true;
  // The top edge of the graph rectangle, counted from the top of the viewport.
  const int tx = x + 10;
  int ty = viewport.height - (y + h);
  ProgramBracket bracket(renderer);
  for (unsigned long i = 0; i < get_num_gpus(); ++i) {
    const zev::GPU* gpu = get_gpu(i);
    if (!gpu->monitorable) continue;
    const zev::vec4& c = gpu->color;
    if (gpu->sensor_available[gpu_record::kTemperatureFlag]) {
      font->bitmap_font_linux_renderf(renderer, window, tx, ty, c.x, c.y, c.z, c.w,
                                      "- GPU%d: %s - core:%ddegC", static_cast<int>(i + 1),
                                      gpu->name, temperature_of(gpu));
      ty += 15;
    }
    if (gpu->sensor_available[gpu_record::kUsageFlag]) {
      font->bitmap_font_linux_renderf(renderer, window, tx + 120, ty, c.x, c.y, c.z, c.w, "%d%%",
                                      usage_of(gpu));
      ty += 15;
    }
  }
  return true;
}

bool GpuMonitorVorn::draw_gpu_data_v3(zev::Renderer* renderer, int x, int y, int w, int h,
                                      zev::Font* font, zev::GpuProgram* program,
                                      zev::Camera* camera_2d, float scale, int text_x, int text_y,
                                      int line_step) {
  if (get_num_gpus() == 0 || !draw_gpu_data_v1(renderer, x, y, w, h, true)) return false;
  if (font == nullptr) return true;
  font->bm_draw_reset();
  int ty = text_y;
  for (unsigned long i = 0; i < get_num_gpus(); ++i) {
    const zev::GPU* gpu = get_gpu(i);
    if (!gpu->monitorable) continue;
    const zev::vec4& c = gpu->color;
    if (gpu->sensor_available[gpu_record::kTemperatureFlag]) {
      font->bm_draw_text_2df(static_cast<float>(text_x), static_cast<float>(ty), c.x, c.y, c.z, c.w,
                             "- GPU%d: %s - core:%d degC", static_cast<int>(i + 1), gpu->name,
                             temperature_of(gpu));
      ty += line_step;
    }
    if (gpu->sensor_available[gpu_record::kUsageFlag]) {
      font->bm_draw_text_2df(static_cast<float>(text_x + 300), static_cast<float>(ty), c.x, c.y,
                             c.z, c.w, "%d%%", usage_of(gpu));
      ty += line_step;
    }
  }
  font->bm_update_vb(renderer, false);
  font->set_scale(scale, scale, scale);
  // Without a program the text is built but not drawn.
  if (program == nullptr) return true;
  render_text(renderer, camera_2d, program, true, [&] { font->bm_render_vb(renderer); });
  return true;
}

bool GpuMonitorVorn::draw_gpu_data_v4(zev::Renderer* renderer, int x, int y, int w, int h,
                                      zev::FreeTypeGLPluginInterface* ft, zev::Font* font,
                                      zev::GpuProgram* program, zev::Camera* camera_2d, float scale,
                                      int text_x, int text_y, int line_step) {
  if (get_num_gpus() == 0 || !draw_gpu_data_v1(renderer, x, y, w, h, true)) return false;
  if (ft == nullptr || font == nullptr) return true;
  ft->draw_reset(renderer, font);
  int ty = text_y;
  for (unsigned long i = 0; i < get_num_gpus(); ++i) {
    const zev::GPU* gpu = get_gpu(i);
    if (!gpu->monitorable) continue;
    const zev::vec4& c = gpu->color;
    if (gpu->sensor_available[gpu_record::kTemperatureFlag]) {
      ft->draw_text_2df(font, static_cast<float>(text_x), static_cast<float>(ty), c.x, c.y, c.z,
                        c.w, "GPU%d: %s - core:%d degC", static_cast<int>(i + 1), gpu->name,
                        temperature_of(gpu));
      ty += line_step;
    }
    if (gpu->sensor_available[gpu_record::kUsageFlag]) {
      ft->draw_text_2df(font, static_cast<float>(text_x + 120), static_cast<float>(ty), c.x, c.y,
                        c.z, c.w, "usage:%d%%", usage_of(gpu));
      ty += line_step;
    }
  }
  font->set_scale(scale, scale, scale);
  if (program == nullptr) return true;
  // Blending is left as the graphs left it.
  render_text(renderer, camera_2d, program, false, [&] { ft->render(renderer, font); });
  return true;
}

bool GpuMonitorVorn::draw_gpu_data_v5(zev::Renderer* renderer, int x, int y, int w, int h,
                                      zev::Font* font, zev::GpuProgram* program,
                                      zev::Camera* camera_2d, float scale, int, int, int line_step,
                                      bool show_usage) {
  if (get_num_gpus() == 0 || !draw_gpu_data_v1(renderer, x, y, w, h, show_usage)) return false;
  if (font == nullptr) return true;
  font->bm_draw_reset();
  // One grid cell plus 10 pixels in, 30 pixels below the rectangle's top;
  // the text_x and text_y arguments are not used.
  const int cell =
      grid_subdiv_x == 0
          ? 0
          : static_cast<int>(static_cast<uint64_t>(static_cast<int64_t>(w)) / grid_subdiv_x);
  const int tx = x + cell + 10;
  int ty = viewport.height - (y + h - 30);
  for (unsigned long i = 0; i < get_num_gpus(); ++i) {
    const zev::GPU* gpu = get_gpu(i);
    if (!gpu->monitorable) continue;
    const zev::vec4& c = gpu->color;
    if (gpu->sensor_available[gpu_record::kTemperatureFlag]) {
      // 0xB0: the degree sign in the font's Latin-1 text.
      font->bm_draw_text_2df(static_cast<float>(tx), static_cast<float>(ty), c.x, c.y, c.z, c.w,
                             "GPU%d: %s - core:%d\xB0"
                             "C",
                             static_cast<int>(i + 1), gpu->name, temperature_of(gpu));
      ty += line_step;
    }
    if (show_usage && gpu->sensor_available[gpu_record::kUsageFlag]) {
      font->bm_draw_text_2df(static_cast<float>(tx + 120), static_cast<float>(ty), c.x, c.y, c.z,
                             c.w, "usage:%d%%", usage_of(gpu));
      ty += line_step;
    }
  }
  float cpu_temperature = 0.0f;
  rt_get_cpu_temperature_and_usage(0, &cpu_temperature, nullptr);
  if (cpu_temperature > 0.0f) {
    font->bm_draw_text_2df(static_cast<float>(tx), static_cast<float>(ty), 0.0f, 1.0f, 0.0f, 1.0f,
                           "CPU temperature: %.1f\xB0"
                           "C",
                           static_cast<double>(cpu_temperature));
    ty += line_step;
  }
  font->set_scale(scale, scale, scale);
  if (program == nullptr) return true;
  render_text(renderer, camera_2d, program, true, [&] {
    if (zev::Texture* glyphs = font->get_texture()) glyphs->bind(renderer, 0);
    font->stbtt_update_vb(renderer, false);
    font->stbtt_render_vb(renderer);
  });
  return true;
}
