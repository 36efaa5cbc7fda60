// The offscreen OpenGL context of the reference host: EGL without a window
// system, a framebuffer object to draw into, and its read-back.
#include "zev/gl_host.h"

#include <png.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "gl_api.h"
#include "gl_renderer.h"
#include "text.h"
#include "zev/scene.h"

namespace zev {

namespace {

class FramebufferWindow : public RenderWindow {
 public:
  FramebufferWindow(int w, int h) : w_(w), h_(h) {}
  int get_width() override { return w_; }
  int get_height() override { return h_; }

 private:
  int w_, h_;
};

// Sets an environment variable for the lifetime of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (value == nullptr) return;
    const char* old = std::getenv(name);
    had_ = old != nullptr;
    if (had_) old_ = old;
    setenv(name, value, 1);
    set_ = true;
  }
  ~ScopedEnv() {
    if (!set_) return;
    had_ ? setenv(name_, old_.c_str(), 1) : unsetenv(name_);
  }

 private:
  const char* name_;
  std::string old_;
  bool had_ = false;
  bool set_ = false;
};

// Writes RGBA rows as an RGB PNG (a window's image is opaque: its alpha is
// dropped); libpng reports errors by longjmp, so nothing here changes after
// setjmp.
bool encode_png(FILE* file, const unsigned char* pixels, int width, int height) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  if (png == nullptr) return false;
  png_infop info = png_create_info_struct(png);
  if (info == nullptr || setjmp(png_jmpbuf(png)) != 0) {
    png_destroy_write_struct(&png, info != nullptr ? &info : nullptr);
    return false;
  }
  png_init_io(png, file);
  png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8,
               PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  png_set_filler(png, 0, PNG_FILLER_AFTER);
  for (int y = 0; y < height; ++y) png_write_row(png, pixels + static_cast<size_t>(y) * width * 4);
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

EGLDisplay open_display(std::string* error) {
  auto get_platform_display = reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(
      eglGetProcAddress("eglGetPlatformDisplayEXT"));
  EGLDisplay display = EGL_NO_DISPLAY;
  // Surfaceless first (Mesa, no window system needed), then the default
  // display of the installed EGL (a GPU driver's own).
  if (get_platform_display != nullptr)
    display = get_platform_display(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
  if (display == EGL_NO_DISPLAY || !eglInitialize(display, nullptr, nullptr)) {
    display = eglGetDisplay(EGL_DEFAULT_DISPLAY);
    if (display == EGL_NO_DISPLAY || !eglInitialize(display, nullptr, nullptr)) {
      *error = "no EGL display could be opened";
      return EGL_NO_DISPLAY;
    }
  }
  return display;
}

}  // namespace

struct GlHost::State {
  EGLDisplay display = EGL_NO_DISPLAY;
  EGLContext context = EGL_NO_CONTEXT;
  GLuint framebuffer = 0, color = 0, depth = 0;
  int width = 0, height = 0;
  std::unique_ptr<GlRenderer> renderer;
  std::unique_ptr<FramebufferWindow> window;
  std::unique_ptr<TextResources> text;

  ~State() {
    text.reset();
    if (context != EGL_NO_CONTEXT) {
      glDeleteFramebuffers(1, &framebuffer);
      glDeleteRenderbuffers(1, &color);
      glDeleteRenderbuffers(1, &depth);
      renderer.reset();
      eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
      eglDestroyContext(display, context);
    }
    // The display stays open for the life of the process: its driver stays
    // loaded, as the next context needs it (and so does a leak report naming
    // the driver's own allocations).
  }
};

GlHost::GlHost(std::unique_ptr<State> state) : state_(std::move(state)) {}
GlHost::~GlHost() = default;

std::unique_ptr<GlHost> GlHost::create(const GlHostOptions& options, std::string* error) {
  std::string ignored;
  if (error == nullptr) error = &ignored;
  if (options.width <= 0 || options.height <= 0) {
    *error = "the size must be at least 1x1 pixel";
    return nullptr;
  }
  const bool legacy = options.gl_major < 3;
  // Mesa makes a context of any version the driver can; asked for 2.1 it
  // would give a newer compatibility context, so the version is pinned.
  ScopedEnv version("MESA_GL_VERSION_OVERRIDE", legacy ? "2.1" : nullptr);
  ScopedEnv glsl("MESA_GLSL_VERSION_OVERRIDE", legacy ? "120" : nullptr);

  auto state = std::make_unique<State>();
  state->display = open_display(error);
  if (state->display == EGL_NO_DISPLAY) return nullptr;
  if (!eglBindAPI(EGL_OPENGL_API)) {
    *error = "this EGL has no desktop OpenGL";
    return nullptr;
  }
  const EGLint core[] = {EGL_CONTEXT_MAJOR_VERSION,
                         options.gl_major,
                         EGL_CONTEXT_MINOR_VERSION,
                         options.gl_minor,
                         EGL_CONTEXT_OPENGL_PROFILE_MASK,
                         EGL_CONTEXT_OPENGL_CORE_PROFILE_BIT,
                         EGL_NONE};
  const EGLint compat[] = {EGL_CONTEXT_MAJOR_VERSION, 2, EGL_CONTEXT_MINOR_VERSION, 1, EGL_NONE};
  state->context =
      eglCreateContext(state->display, EGL_NO_CONFIG_KHR, EGL_NO_CONTEXT, legacy ? compat : core);
  if (state->context == EGL_NO_CONTEXT ||
      !eglMakeCurrent(state->display, EGL_NO_SURFACE, EGL_NO_SURFACE, state->context)) {
    char text[128];
    std::snprintf(text, sizeof text, "no OpenGL %d.%d context could be made (EGL error 0x%x)",
                  options.gl_major, options.gl_minor, eglGetError());
    *error = text;
    state->context = EGL_NO_CONTEXT;
    return nullptr;
  }

  // Mesa takes its version override once per process: after a newer context
  // it can make no 2.1 one.
  int made_major = 0;
  std::sscanf(reinterpret_cast<const char*>(glGetString(GL_VERSION)), "%d", &made_major);
  if (legacy && made_major != 2) {
    *error = "no OpenGL 2.1 context can be made in a process that made a newer one";
    return nullptr;
  }

  GLint max_size = 0;
  glGetIntegerv(GL_MAX_RENDERBUFFER_SIZE, &max_size);
  if (options.width > max_size || options.height > max_size) {
    *error = "the size is above this context's limit of " + std::to_string(max_size) + " pixels";
    return nullptr;
  }
  state->width = options.width;
  state->height = options.height;
  glGenFramebuffers(1, &state->framebuffer);
  glGenRenderbuffers(1, &state->color);
  glGenRenderbuffers(1, &state->depth);
  glBindRenderbuffer(GL_RENDERBUFFER, state->color);
  glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, options.width, options.height);
  glBindRenderbuffer(GL_RENDERBUFFER, state->depth);
  glRenderbufferStorage(GL_RENDERBUFFER, GL_DEPTH_COMPONENT24, options.width, options.height);
  glBindFramebuffer(GL_FRAMEBUFFER, state->framebuffer);
  glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, state->color);
  glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_RENDERBUFFER, state->depth);
  if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) {
    *error = "the framebuffer of " + std::to_string(options.width) + "x" +
             std::to_string(options.height) + " cannot be made";
    return nullptr;
  }
  glViewport(0, 0, options.width, options.height);

  state->renderer = std::make_unique<GlRenderer>(!legacy);
  state->window = std::make_unique<FramebufferWindow>(options.width, options.height);
  std::string text_error;
  state->text =
      TextResources::create(state->renderer.get(), options.width, options.height, &text_error);
  if (!state->text) {
    *error = text_error;
    return nullptr;
  }
  return std::unique_ptr<GlHost>(new GlHost(std::move(state)));
}

Renderer* GlHost::renderer() { return state_->renderer.get(); }
RenderWindow* GlHost::window() { return state_->window.get(); }
int GlHost::width() const { return state_->width; }
int GlHost::height() const { return state_->height; }
Font* GlHost::font() { return state_->text->font(); }
FreeTypeGLPluginInterface* GlHost::freetype() { return state_->text->freetype(); }
GpuProgram* GlHost::text_program() { return state_->text->program(); }
Camera* GlHost::text_camera() { return state_->text->camera(); }

void GlHost::clear(float r, float g, float b, float a) {
  glClearColor(r, g, b, a);
  glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
}

std::vector<unsigned char> GlHost::read_pixels() {
  const size_t row = static_cast<size_t>(state_->width) * 4;
  std::vector<unsigned char> bottom_up(row * static_cast<size_t>(state_->height));
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(0, 0, state_->width, state_->height, GL_RGBA, GL_UNSIGNED_BYTE, bottom_up.data());
  std::vector<unsigned char> top_down(bottom_up.size());
  for (int y = 0; y < state_->height; ++y) {
    std::copy_n(bottom_up.data() + row * static_cast<size_t>(state_->height - 1 - y), row,
                top_down.data() + row * static_cast<size_t>(y));
  }
  return top_down;
}

bool GlHost::write_png(const std::string& path, std::string* error) {
  const std::vector<unsigned char> pixels = read_pixels();
  const std::string temporary = path + ".part";
  errno = 0;
  FILE* file = std::fopen(temporary.c_str(), "wb");
  if (file == nullptr) {
    *error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  bool ok = encode_png(file, pixels.data(), state_->width, state_->height);
  int reason = ok ? 0 : (errno != 0 ? errno : EIO);
  if (std::fclose(file) != 0 && reason == 0) reason = errno != 0 ? errno : EIO;
  if (reason == 0 && std::rename(temporary.c_str(), path.c_str()) != 0) reason = errno;
  if (reason != 0) {
    std::remove(temporary.c_str());
    *error = "cannot write " + path + ": " + std::strerror(reason);
    return false;
  }
  return true;
}

}  // namespace zev
