// The reference host's renderer: an OpenGL context made current by GlHost,
// with the camera and program that nodes are drawn with, and one streaming
// vertex buffer that every node's vertices pass through.
#pragma once

#include "gl_api.h"
#include "zev/renderer.h"

namespace zev {

class Camera;

class GlRenderer : public Renderer {
 public:
  explicit GlRenderer(bool core_profile);
  ~GlRenderer() override;

  const char* get_gl_vendor_string() override;
  const char* get_gl_renderer_string() override;
  const char* get_gl_version_string() override;
  void get_gl_version(int* major, int* minor) override;
  unsigned long get_num_extensions(RenderWindow* window) override;
  const char* get_extension(RenderWindow* window, unsigned long index) override;
  bool get_capability_4i(const char* name, int* v0, int* v1, int* v2, int* v3) override;
  void set_depth_test(bool on) override;
  void set_blending(bool on) override;
  void set_blending_factors(int source, int destination) override;
  GpuProgram* get_current_gpu_program() override { return current_program_; }
  void use_gpu_program(GpuProgram* program) override;
  void set_current_gpu_program(GpuProgram* program) override { use_gpu_program(program); }

  bool core_profile() const { return core_; }

  // The camera nodes are drawn with, and whether its matrices are also the
  // fixed-function ones.
  void set_camera(const float* projection, const float* view, bool fixed_function);

  // Draws `count` vertices of 8 floats (x, y, z, w, r, g, b, a), or of 10
  // with (u, v) behind, placed by `model`, with the program in use.
  void draw_vertices(const float* vertices, int count, bool textured, GLenum mode,
                     const float* model);

 private:
  void load_matrices(const float* model);
  bool core_;
  GpuProgram* current_program_ = nullptr;
  float projection_[16];
  float view_[16];
  bool fixed_function_ = false;
  GLuint stream_buffer_ = 0;
  GLuint vertex_array_ = 0;
  GLsizeiptr stream_size_ = 0;
};

}  // namespace zev
