// Text of the reference host: glyph atlases made from the system's DejaVu
// fonts (a bitmap set and an anti-aliased FreeType set rendered with
// FreeType, a set baked by stb_truetype), the font and FreeType interface
// that draw with them, and the program and camera that show them.
#pragma once

#include <memory>
#include <string>

#include "gl_api.h"
#include "zev/font.h"

namespace zev {

class Camera;
class GlRenderer;

// Glyphs of the Latin-1 characters 32 to 255 in one single-channel texture.
struct GlyphAtlas {
  struct Glyph {
    float u0, v0, u1, v1;  // texture rectangle
    float x0, y0, x1, y1;  // quad relative to the pen, y down from the line's top
    float advance;
  };
  GLuint texture = 0;
  float line_height = 0.0f;
  Glyph glyphs[224] = {};
  ~GlyphAtlas();
};

// The texts added since the last reset, turned into textured vertices.
class TextList {
 public:
  static constexpr int kMaxItems = 64;
  static constexpr int kMaxChars = 128;
  TextList();
  void reset() { num_items_ = 0; }
  void add(float x, float y, float r, float g, float b, float a, const char* format, va_list args);
  // Builds the vertices with `atlas`, glyphs scaled by `scale`.
  void build(const GlyphAtlas& atlas, float scale);
  void draw(GlRenderer* renderer, GLuint texture) const;

 private:
  struct Item {
    float x, y, color[4];
    char text[kMaxChars];
  };
  Item items_[kMaxItems];
  int num_items_ = 0;
  std::unique_ptr<float[]> vertices_;
  int num_vertices_ = 0;
};

class TextResources {
 public:
  static std::unique_ptr<TextResources> create(GlRenderer* renderer, int width, int height,
                                               std::string* error);
  ~TextResources();
  Font* font();
  FreeTypeGLPluginInterface* freetype();
  GpuProgram* program() { return program_; }
  Camera* camera() { return camera_; }

 private:
  TextResources() = default;
  struct Fonts;
  std::unique_ptr<Fonts> fonts_;
  GpuProgram* program_ = nullptr;
  Camera* camera_ = nullptr;
};

}  // namespace zev
