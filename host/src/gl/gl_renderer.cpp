#include "gl_renderer.h"

#include <cstdio>
#include <cstring>

#include "zev/gl_limits.h"
#include "zev/gpu_program.h"

namespace zev_gl {

void identity(float* m) {
  for (int i = 0; i < 16; ++i) m[i] = (i % 5 == 0) ? 1.0f : 0.0f;
}

void multiply(const float* a, const float* b, float* out) {
  float r[16];
  for (int col = 0; col < 4; ++col)
    for (int row = 0; row < 4; ++row) {
      float s = 0.0f;
      for (int k = 0; k < 4; ++k) s += a[k * 4 + row] * b[col * 4 + k];
      r[col * 4 + row] = s;
    }
  std::memcpy(out, r, sizeof r);
}

}  // namespace zev_gl

namespace zev {

Renderer::~Renderer() = default;
RenderWindow::~RenderWindow() = default;

namespace {

// The limits get_capability_4i knows (zev/gl_limits.h): how each is read,
// and how many values.
struct Limit {
  const char* name;
  GLenum value;
  GlLimitQuery query;
  int count;
};

#define ZEV_LIMIT(name, query, read, first_slot, kept) {#name, name, GlLimitQuery::query, read},
const Limit kLimits[] = {ZEV_GL_LIMITS(ZEV_LIMIT)};
#undef ZEV_LIMIT

// The blending codes of zev::BlendFactor, in code order.
const GLenum kBlendFactors[] = {GL_ONE_MINUS_SRC_ALPHA, GL_ONE,       GL_SRC_COLOR,
                                GL_DST_COLOR,           GL_ZERO,      GL_ONE_MINUS_SRC_COLOR,
                                GL_ONE_MINUS_DST_COLOR, GL_DST_ALPHA, GL_SRC_ALPHA,
                                GL_ONE_MINUS_DST_ALPHA};

const char* text_of(const GLubyte* s) { return s ? reinterpret_cast<const char*>(s) : ""; }

constexpr int kFloatsPlain = 8;
constexpr int kFloatsTextured = 10;

}  // namespace

GlRenderer::GlRenderer(bool core_profile) : core_(core_profile) {
  zev_gl::identity(projection_);
  zev_gl::identity(view_);
  glGenBuffers(1, &stream_buffer_);
  // A core profile draws only through a vertex array object.
  if (core_) {
    glGenVertexArrays(1, &vertex_array_);
    glBindVertexArray(vertex_array_);
  }
}

GlRenderer::~GlRenderer() {
  if (vertex_array_ != 0) glDeleteVertexArrays(1, &vertex_array_);
  glDeleteBuffers(1, &stream_buffer_);
}

const char* GlRenderer::get_gl_vendor_string() { return text_of(glGetString(GL_VENDOR)); }
const char* GlRenderer::get_gl_renderer_string() { return text_of(glGetString(GL_RENDERER)); }
const char* GlRenderer::get_gl_version_string() { return text_of(glGetString(GL_VERSION)); }

void GlRenderer::get_gl_version(int* major, int* minor) {
  int a = 0;
  int b = 0;
  // "2.1 Mesa ..." or "4.6.0 NVIDIA ...": before 3.0 there is no integer query.
  std::sscanf(get_gl_version_string(), "%d.%d", &a, &b);
  if (major != nullptr) *major = a;
  if (minor != nullptr) *minor = b;
}

unsigned long GlRenderer::get_num_extensions(RenderWindow*) {
  int major = 0;
  get_gl_version(&major, nullptr);
  if (major >= 3) {
    GLint n = 0;
    glGetIntegerv(GL_NUM_EXTENSIONS, &n);
    return n < 0 ? 0 : static_cast<unsigned long>(n);
  }
  // OpenGL 2.1: one string of names separated by blanks.
  unsigned long n = 0;
  for (const char* p = text_of(glGetString(GL_EXTENSIONS)); *p != '\0'; ++p)
    if (*p != ' ' && (p[1] == ' ' || p[1] == '\0')) ++n;
  return n;
}

const char* GlRenderer::get_extension(RenderWindow*, unsigned long index) {
  int major = 0;
  get_gl_version(&major, nullptr);
  if (major >= 3) return text_of(glGetStringi(GL_EXTENSIONS, static_cast<GLuint>(index)));
  // The index-th name of the 2.1 string, in a buffer of the renderer's own.
  static thread_local char name[256];
  const char* p = text_of(glGetString(GL_EXTENSIONS));
  for (unsigned long i = 0; *p != '\0';) {
    while (*p == ' ') ++p;
    const char* end = p;
    while (*end != '\0' && *end != ' ') ++end;
    if (end == p) break;
    if (i++ == index) {
      const size_t n = static_cast<size_t>(end - p) < sizeof name - 1 ? end - p : sizeof name - 1;
      std::memcpy(name, p, n);
      name[n] = '\0';
      return name;
    }
    p = end;
  }
  return nullptr;
}

bool GlRenderer::get_capability_4i(const char* name, int* v0, int* v1, int* v2, int* v3) {
  if (name == nullptr) return false;
  for (const Limit& limit : kLimits) {
    if (std::strcmp(limit.name, name) != 0) continue;
    GLint values[4] = {0, 0, 0, 0};
    const int count = limit.count;
    switch (limit.query) {
      case GlLimitQuery::kIndexed:  // one query per axis
        for (int i = 0; i < count; ++i)
          glGetIntegeri_v(limit.value, static_cast<GLuint>(i), &values[i]);
        break;
      case GlLimitQuery::kInternalFormat:  // of the RGBA8 2D texture format
        glGetInternalformativ(GL_TEXTURE_2D, GL_RGBA8, limit.value, 1, values);
        break;
      case GlLimitQuery::kPlain: glGetIntegerv(limit.value, values); break;
    }
    // A limit the context does not know raises an error and writes nothing.
    if (glGetError() != GL_NO_ERROR) return false;
    int* outs[4] = {v0, v1, v2, v3};
    for (int i = 0; i < count; ++i)
      if (outs[i] != nullptr) *outs[i] = values[i];
    return true;
  }
  return false;
}

void GlRenderer::set_depth_test(bool on) {
  on ? glEnable(GL_DEPTH_TEST) : glDisable(GL_DEPTH_TEST);
}
void GlRenderer::set_blending(bool on) { on ? glEnable(GL_BLEND) : glDisable(GL_BLEND); }

void GlRenderer::set_blending_factors(int source, int destination) {
  const int n = static_cast<int>(sizeof kBlendFactors / sizeof kBlendFactors[0]);
  if (source < 0 || source >= n || destination < 0 || destination >= n) return;
  glBlendFunc(kBlendFactors[source], kBlendFactors[destination]);
}

void GlRenderer::use_gpu_program(GpuProgram* program) {
  current_program_ = program;
  glUseProgram(program != nullptr ? program->handle() : 0);
}

void GlRenderer::set_camera(const float* projection, const float* view, bool fixed_function) {
  if (projection != nullptr) std::memcpy(projection_, projection, sizeof projection_);
  if (view != nullptr) std::memcpy(view_, view, sizeof view_);
  fixed_function_ = fixed_function && !core_;
}

void GlRenderer::load_matrices(const float* model) {
  float model_view[16];
  float mvp[16];
  zev_gl::multiply(view_, model, model_view);
  zev_gl::multiply(projection_, model_view, mvp);
  if (current_program_ != nullptr) {
    const GLint at =
        glGetUniformLocation(current_program_->handle(), "tulva_ModelViewProjectionMatrix");
    if (at >= 0) glUniformMatrix4fv(at, 1, GL_FALSE, mvp);
  }
  if (fixed_function_) {
    glMatrixMode(GL_PROJECTION);
    glLoadMatrixf(projection_);
    glMatrixMode(GL_MODELVIEW);
    glLoadMatrixf(model_view);
  }
}

void GlRenderer::draw_vertices(const float* vertices, int count, bool textured, GLenum mode,
                               const float* model) {
  if (count <= 0) return;
  load_matrices(model);
  const int floats = textured ? kFloatsTextured : kFloatsPlain;
  const GLsizeiptr bytes = static_cast<GLsizeiptr>(count) * floats * sizeof(float);
  glBindBuffer(GL_ARRAY_BUFFER, stream_buffer_);
  // The buffer only grows: once large enough, a frame reuses it.
  if (bytes > stream_size_) {
    stream_size_ = bytes;
    glBufferData(GL_ARRAY_BUFFER, bytes, vertices, GL_STREAM_DRAW);
  } else {
    glBufferSubData(GL_ARRAY_BUFFER, 0, bytes, vertices);
  }
  const GLsizei stride = floats * static_cast<GLsizei>(sizeof(float));
  const void* color_at = reinterpret_cast<const void*>(4 * sizeof(float));
  const void* uv_at = reinterpret_cast<const void*>(8 * sizeof(float));
  glEnableVertexAttribArray(zev_gl::kPositionSlot);
  glVertexAttribPointer(zev_gl::kPositionSlot, 4, GL_FLOAT, GL_FALSE, stride, nullptr);
  glEnableVertexAttribArray(zev_gl::kColorSlot);
  glVertexAttribPointer(zev_gl::kColorSlot, 4, GL_FLOAT, GL_FALSE, stride, color_at);
  if (textured) {
    glEnableVertexAttribArray(zev_gl::kTexCoordSlot);
    glVertexAttribPointer(zev_gl::kTexCoordSlot, 2, GL_FLOAT, GL_FALSE, stride, uv_at);
  } else {
    glDisableVertexAttribArray(zev_gl::kTexCoordSlot);
  }
  // GLSL 1.20 programs read the conventional arrays (gl_Vertex, gl_Color,
  // gl_MultiTexCoord0).
  if (!core_) {
    glEnableClientState(GL_VERTEX_ARRAY);
    glVertexPointer(4, GL_FLOAT, stride, nullptr);
    glEnableClientState(GL_COLOR_ARRAY);
    glColorPointer(4, GL_FLOAT, stride, color_at);
    if (textured) {
      glEnableClientState(GL_TEXTURE_COORD_ARRAY);
      glTexCoordPointer(2, GL_FLOAT, stride, uv_at);
    } else {
      glDisableClientState(GL_TEXTURE_COORD_ARRAY);
    }
  }
  glDrawArrays(mode, 0, count);
}

}  // namespace zev
