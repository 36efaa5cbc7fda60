// GlHost: the framework's offscreen OpenGL context, for programs that embed a
// plug-in without a window system (gpumon, tests, benchmarks). It makes an
// EGL context - surfaceless Mesa (llvmpipe) on any machine, or the GPU's own
// EGL where one is installed - renders into a framebuffer of the size asked,
// and reads it back as RGBA or writes it as PNG.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace zev {

class Camera;
class Font;
class FreeTypeGLPluginInterface;
class GpuProgram;
class Renderer;
class RenderWindow;

struct GlHostOptions {
  int width = 800;
  int height = 400;
  // 3 or more: a core-profile context of that version (GLSL 1.50 and up);
  // 2: an OpenGL 2.1 context (GLSL 1.20). Under Mesa a process makes 2.1
  // contexts or newer ones, not both: the first context decides.
  int gl_major = 3;
  int gl_minor = 3;
};

class GlHost {
 public:
  // Null, with the reason in `error`, when no context can be made or the
  // size is not one the context can render (0, negative, above its limit).
  static std::unique_ptr<GlHost> create(const GlHostOptions& options, std::string* error);
  ~GlHost();
  GlHost(const GlHost&) = delete;
  GlHost& operator=(const GlHost&) = delete;

  Renderer* renderer();
  RenderWindow* window();
  int width() const;
  int height() const;
  // Clears the framebuffer to a colour.
  void clear(float r, float g, float b, float a);
  // The framebuffer, RGBA8, rows from the top.
  std::vector<unsigned char> read_pixels();
  // Writes the framebuffer as an 8-bit RGB PNG, through a temporary file
  // renamed into place: a failure leaves nothing half-written.
  bool write_png(const std::string& path, std::string* error);

  // Text resources for the overlays: a font with its bitmap and stb_truetype
  // glyph sets, the FreeType font interface, a program that draws their
  // glyphs (texture unit 0 times the vertex colour), and a camera that maps
  // window pixels, origin top-left, y down.
  Font* font();
  FreeTypeGLPluginInterface* freetype();
  GpuProgram* text_program();
  Camera* text_camera();

 private:
  struct State;
  explicit GlHost(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace zev
