// zev::Renderer and zev::RenderWindow: the framework's rendering context as a
// plug-in sees it. The framework creates them (see zev/gl_host.h for the
// OpenGL implementation); a plug-in only calls their operations, on the
// thread that renders.
#pragma once

namespace zev {

class GpuProgram;
class RenderWindow;

// Codes of set_blending_factors(source, destination).
enum BlendFactor {
  BLEND_ONE_MINUS_SRC_ALPHA = 0,
  BLEND_ONE = 1,
  BLEND_SRC_COLOR = 2,
  BLEND_DST_COLOR = 3,
  BLEND_ZERO = 4,
  BLEND_ONE_MINUS_SRC_COLOR = 5,
  BLEND_ONE_MINUS_DST_COLOR = 6,
  BLEND_DST_ALPHA = 7,
  BLEND_SRC_ALPHA = 8,
  BLEND_ONE_MINUS_DST_ALPHA = 9,
};

class Renderer {
 public:
  virtual ~Renderer();

  // The context's strings, and its version as the context reports it
  // (GL_MAJOR_VERSION and GL_MINOR_VERSION, or the version string before
  // OpenGL 3.0): a 2.1 context answers 2 and 1.
  virtual const char* get_gl_vendor_string() = 0;
  virtual const char* get_gl_renderer_string() = 0;
  virtual const char* get_gl_version_string() = 0;
  virtual void get_gl_version(int* major, int* minor) = 0;
  virtual unsigned long get_num_extensions(RenderWindow* window) = 0;
  virtual const char* get_extension(RenderWindow* window, unsigned long index) = 0;
  // Writes as many of the four ints as the named limit (an OpenGL enumerant
  // name such as "GL_MAX_TEXTURE_SIZE") has; null pointers are skipped, and
  // a limit the context does not know leaves the ints as they are.
  virtual bool get_capability_4i(const char* name, int* v0, int* v1, int* v2, int* v3) = 0;

  virtual void set_depth_test(bool on) = 0;
  virtual void set_blending(bool on) = 0;
  virtual void set_blending_factors(int source, int destination) = 0;

  // The program in use; use_gpu_program(nullptr) leaves none in use, and
  // set_current_gpu_program puts a saved one back.
  virtual GpuProgram* get_current_gpu_program() = 0;
  virtual void use_gpu_program(GpuProgram* program) = 0;
  virtual void set_current_gpu_program(GpuProgram* program) = 0;
};

// What is drawn into: its size in pixels.
class RenderWindow {
 public:
  virtual ~RenderWindow();
  virtual int get_width() = 0;
  virtual int get_height() = 0;
};

}  // namespace zev
