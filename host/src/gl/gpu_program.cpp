// GPU programs of the reference host: compiled and linked with OpenGL, with
// the host's vertex attributes bound to fixed slots before linking.
#include "zev/gpu_program.h"

#include <cstring>
#include <string>

#include "gl_renderer.h"

namespace zev {

GpuProgram::GpuProgram() = default;

GpuProgram::~GpuProgram() {
  if (program_ != 0) glDeleteProgram(program_);
  delete[] log_;
}

bool GpuProgram::activate(Renderer* renderer) {
  if (!valid_ || renderer == nullptr) return false;
  glValidateProgram(program_);
  GLint ok = GL_FALSE;
  glGetProgramiv(program_, GL_VALIDATE_STATUS, &ok);
  if (ok != GL_TRUE) return false;
  renderer->use_gpu_program(this);
  return true;
}

void GpuProgram::bind(Renderer* renderer) {
  if (renderer != nullptr) renderer->use_gpu_program(this);
}

void GpuProgram::unbind(Renderer* renderer) {
  if (renderer != nullptr && renderer->get_current_gpu_program() == this)
    renderer->use_gpu_program(nullptr);
}

void GpuProgram::set_uniform_4f(Renderer* renderer, const char* name, float x, float y, float z,
                                float w) {
  if (program_ == 0 || name == nullptr) return;
  if (renderer != nullptr && renderer->get_current_gpu_program() != this) bind(renderer);
  const GLint at = glGetUniformLocation(program_, name);
  if (at >= 0) glUniform4f(at, x, y, z, w);
}

const char* GpuProgram::get_shaders_info_log() const { return log_; }

GpuProgramMgr* GpuProgramMgr::get() {
  static GpuProgramMgr manager;
  return &manager;
}

namespace {

// Appends a shader's or the program's log (when there is one) to `log`.
void append_log(std::string* log, GLuint object, bool is_program) {
  GLint length = 0;
  is_program ? glGetProgramiv(object, GL_INFO_LOG_LENGTH, &length)
             : glGetShaderiv(object, GL_INFO_LOG_LENGTH, &length);
  if (length <= 1) return;
  std::string text(static_cast<size_t>(length), '\0');
  is_program ? glGetProgramInfoLog(object, length, nullptr, &text[0])
             : glGetShaderInfoLog(object, length, nullptr, &text[0]);
  text.resize(std::strlen(text.c_str()));
  *log += text;
}

GLuint compile(GLenum stage, const char* source, std::string* log, bool* ok) {
  const GLuint shader = glCreateShader(stage);
  glShaderSource(shader, 1, &source, nullptr);
  glCompileShader(shader);
  GLint compiled = GL_FALSE;
  glGetShaderiv(shader, GL_COMPILE_STATUS, &compiled);
  if (compiled != GL_TRUE) *ok = false;
  append_log(log, shader, false);
  return shader;
}

}  // namespace

GpuProgram* GpuProgramMgr::create_gpu_program_from_shaders(
    Renderer*, const char* vertex, const char* fragment, const char* tess_control,
    const char* tess_evaluation, const char* geometry, const char*, const char*) {
  const GLuint handle = glCreateProgram();
  if (handle == 0) return nullptr;
  GpuProgram* program = new GpuProgram();
  program->program_ = handle;
  std::string log;
  bool ok = vertex != nullptr && fragment != nullptr;
  const std::pair<GLenum, const char*> stages[] = {{GL_VERTEX_SHADER, vertex},
                                                   {GL_FRAGMENT_SHADER, fragment},
                                                   {GL_TESS_CONTROL_SHADER, tess_control},
                                                   {GL_TESS_EVALUATION_SHADER, tess_evaluation},
                                                   {GL_GEOMETRY_SHADER, geometry}};
  GLuint shaders[5] = {0, 0, 0, 0, 0};
  for (int i = 0; i < 5; ++i) {
    if (stages[i].second == nullptr) continue;
    shaders[i] = compile(stages[i].first, stages[i].second, &log, &ok);
    glAttachShader(handle, shaders[i]);
  }
  glBindAttribLocation(handle, zev_gl::kPositionSlot, "tulva_Position");
  glBindAttribLocation(handle, zev_gl::kColorSlot, "tulva_Color");
  glBindAttribLocation(handle, zev_gl::kTexCoordSlot, "tulva_TexCoord");
  if (ok) {
    glLinkProgram(handle);
    GLint linked = GL_FALSE;
    glGetProgramiv(handle, GL_LINK_STATUS, &linked);
    ok = linked == GL_TRUE;
    append_log(&log, handle, true);
  }
  for (GLuint shader : shaders)
    if (shader != 0) glDeleteShader(shader);
  program->valid_ = ok;
  if (!log.empty()) {
    program->log_ = new char[log.size() + 1];
    std::memcpy(program->log_, log.c_str(), log.size() + 1);
  }
  return program;
}

void GpuProgramMgr::release_gpu_program(Renderer* renderer, GpuProgram* program, bool) {
  if (program == nullptr) return;
  if (renderer != nullptr && renderer->get_current_gpu_program() == program)
    renderer->use_gpu_program(nullptr);
  delete program;
}

}  // namespace zev
