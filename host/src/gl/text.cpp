#include "text.h"

#include <ft2build.h>
#include FT_FREETYPE_H

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#define STB_TRUETYPE_IMPLEMENTATION
#define STBTT_STATIC
#include <stb/stb_truetype.h>

#include "gl_renderer.h"
#include "zev/gpu_program.h"
#include "zev/renderer.h"
#include "zev/scene.h"

namespace zev {

Texture::~Texture() = default;
FreeTypeGLPluginInterface::~FreeTypeGLPluginInterface() = default;

namespace {

const char kSans[] = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
const char kMono[] = "/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf";
constexpr int kFirst = 32;
constexpr int kCount = 224;
constexpr int kAtlasSize = 512;

// Floats of a textured vertex: position (4), colour (4), texture (2).
constexpr int kFloats = 10;

const char kTextVertex150[] =
    "#version 150\nin vec4 tulva_Position;\nin vec4 tulva_Color;\nin vec2 tulva_TexCoord;\n"
    "out vec4 color;\nout vec2 uv;\nuniform mat4 tulva_ModelViewProjectionMatrix;\n"
    "void main()\n{\n  gl_Position = tulva_ModelViewProjectionMatrix * tulva_Position;\n"
    "  color = tulva_Color;\n  uv = tulva_TexCoord;\n}\n";
const char kTextFragment150[] =
    "#version 150\nin vec4 color;\nin vec2 uv;\nout vec4 Out_Color;\nuniform sampler2D glyphs;\n"
    "void main()\n{\n  Out_Color = color * texture(glyphs, uv).r;\n}\n";
const char kTextVertex120[] =
    "#version 120\nuniform mat4 tulva_ModelViewProjectionMatrix;\nvarying vec4 color;\n"
    "varying vec2 uv;\nvoid main()\n{\n"
    "  gl_Position = tulva_ModelViewProjectionMatrix * gl_Vertex;\n  color = gl_Color;\n"
    "  uv = gl_MultiTexCoord0.st;\n}\n";
const char kTextFragment120[] =
    "#version 120\nvarying vec4 color;\nvarying vec2 uv;\nuniform sampler2D glyphs;\n"
    "void main()\n{\n  gl_FragColor = color * texture2D(glyphs, uv).r;\n}\n";

std::vector<unsigned char> read_whole(const char* path) {
  std::vector<unsigned char> bytes;
  FILE* file = std::fopen(path, "rb");
  if (file == nullptr) return bytes;
  unsigned char buffer[65536];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, file)) > 0;)
    bytes.insert(bytes.end(), buffer, buffer + n);
  std::fclose(file);
  return bytes;
}

// Uploads a single-channel atlas: red in a core profile, luminance in 2.1.
GLuint upload(const unsigned char* pixels, bool core) {
  GLuint texture = 0;
  glGenTextures(1, &texture);
  glBindTexture(GL_TEXTURE_2D, texture);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  glTexImage2D(GL_TEXTURE_2D, 0, core ? GL_R8 : GL_LUMINANCE, kAtlasSize, kAtlasSize, 0,
               core ? GL_RED : GL_LUMINANCE, GL_UNSIGNED_BYTE, pixels);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
  return texture;
}

// Renders the characters with FreeType, one-bit (`mono`) or anti-aliased,
// packed row by row.
bool freetype_atlas(const char* path, int pixels, bool mono, bool core, GlyphAtlas* atlas,
                    std::string* error) {
  FT_Library library = nullptr;
  FT_Face face = nullptr;
  if (FT_Init_FreeType(&library) != 0 || FT_New_Face(library, path, 0, &face) != 0) {
    if (library != nullptr) FT_Done_FreeType(library);
    *error = std::string("cannot read the font ") + path;
    return false;
  }
  FT_Set_Pixel_Sizes(face, 0, static_cast<FT_UInt>(pixels));
  const float ascent = static_cast<float>(face->size->metrics.ascender >> 6);
  atlas->line_height = static_cast<float>(face->size->metrics.height >> 6);
  std::vector<unsigned char> image(kAtlasSize * kAtlasSize, 0);
  int pen_x = 1, pen_y = 1, row_h = 0;
  for (int i = 0; i < kCount; ++i) {
    const FT_Int32 flags = FT_LOAD_RENDER | (mono ? FT_LOAD_TARGET_MONO : FT_LOAD_TARGET_NORMAL);
    if (FT_Load_Char(face, static_cast<FT_ULong>(kFirst + i), flags) != 0) continue;
    const FT_GlyphSlot g = face->glyph;
    const int w = static_cast<int>(g->bitmap.width);
    const int h = static_cast<int>(g->bitmap.rows);
    if (pen_x + w + 1 >= kAtlasSize) {
      pen_x = 1;
      pen_y += row_h + 1;
      row_h = 0;
    }
    if (pen_y + h + 1 >= kAtlasSize) break;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const unsigned char* row = g->bitmap.buffer + y * g->bitmap.pitch;
        const unsigned char v = mono ? ((row[x >> 3] >> (7 - (x & 7))) & 1 ? 255 : 0) : row[x];
        image[static_cast<size_t>(pen_y + y) * kAtlasSize + pen_x + x] = v;
      }
    GlyphAtlas::Glyph& glyph = atlas->glyphs[i];
    glyph.u0 = static_cast<float>(pen_x) / kAtlasSize;
    glyph.v0 = static_cast<float>(pen_y) / kAtlasSize;
    glyph.u1 = static_cast<float>(pen_x + w) / kAtlasSize;
    glyph.v1 = static_cast<float>(pen_y + h) / kAtlasSize;
    glyph.x0 = static_cast<float>(g->bitmap_left);
    glyph.y0 = ascent - static_cast<float>(g->bitmap_top);
    glyph.x1 = glyph.x0 + static_cast<float>(w);
    glyph.y1 = glyph.y0 + static_cast<float>(h);
    glyph.advance = static_cast<float>(g->advance.x >> 6);
    pen_x += w + 1;
    row_h = h > row_h ? h : row_h;
  }
  FT_Done_Face(face);
  FT_Done_FreeType(library);
  atlas->texture = upload(image.data(), core);
  return true;
}

// Bakes the characters with stb_truetype.
bool stb_atlas(const char* path, float pixels, bool core, GlyphAtlas* atlas, std::string* error) {
  const std::vector<unsigned char> ttf = read_whole(path);
  std::vector<unsigned char> image(kAtlasSize * kAtlasSize, 0);
  stbtt_bakedchar baked[kCount];
  if (ttf.empty() || stbtt_BakeFontBitmap(ttf.data(), 0, pixels, image.data(), kAtlasSize,
                                          kAtlasSize, kFirst, kCount, baked) == 0) {
    *error = std::string("cannot bake the font ") + path;
    return false;
  }
  stbtt_fontinfo info;
  stbtt_InitFont(&info, ttf.data(), 0);
  int ascent = 0, descent = 0, gap = 0;
  stbtt_GetFontVMetrics(&info, &ascent, &descent, &gap);
  const float scale = stbtt_ScaleForPixelHeight(&info, pixels);
  const float top = static_cast<float>(ascent) * scale;
  atlas->line_height = static_cast<float>(ascent - descent + gap) * scale;
  for (int i = 0; i < kCount; ++i) {
    const stbtt_bakedchar& b = baked[i];
    GlyphAtlas::Glyph& glyph = atlas->glyphs[i];
    glyph.u0 = static_cast<float>(b.x0) / kAtlasSize;
    glyph.v0 = static_cast<float>(b.y0) / kAtlasSize;
    glyph.u1 = static_cast<float>(b.x1) / kAtlasSize;
    glyph.v1 = static_cast<float>(b.y1) / kAtlasSize;
    glyph.x0 = b.xoff;
    glyph.y0 = top + b.yoff;
    glyph.x1 = b.xoff + static_cast<float>(b.x1 - b.x0);
    glyph.y1 = glyph.y0 + static_cast<float>(b.y1 - b.y0);
    glyph.advance = b.xadvance;
  }
  atlas->texture = upload(image.data(), core);
  return true;
}

// Alpha blending for text drawn outside the overlay's own blending.
class AlphaBlending {
 public:
  AlphaBlending() : was_on_(glIsEnabled(GL_BLEND) == GL_TRUE) {
    glGetIntegerv(GL_BLEND_SRC_RGB, &source_);
    glGetIntegerv(GL_BLEND_DST_RGB, &destination_);
    glEnable(GL_BLEND);
    glBlendFunc(GL_ONE, GL_ONE_MINUS_SRC_ALPHA);  // the text program's colours are premultiplied
  }
  ~AlphaBlending() {
    glBlendFunc(static_cast<GLenum>(source_), static_cast<GLenum>(destination_));
    if (!was_on_) glDisable(GL_BLEND);
  }

 private:
  bool was_on_;
  GLint source_ = GL_ONE, destination_ = GL_ZERO;
};

class AtlasTexture : public Texture {
 public:
  explicit AtlasTexture(const GlyphAtlas* atlas) : atlas_(atlas) {}
  void bind(Renderer*, int unit) override {
    glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(unit));
    glBindTexture(GL_TEXTURE_2D, atlas_->texture);
  }

 private:
  const GlyphAtlas* atlas_;
};

}  // namespace

GlyphAtlas::~GlyphAtlas() {
  if (texture != 0) glDeleteTextures(1, &texture);
}

TextList::TextList()
    : vertices_(new float[static_cast<size_t>(kMaxItems) * kMaxChars * 6 * kFloats]) {}

void TextList::add(float x, float y, float r, float g, float b, float a, const char* format,
                   va_list args) {
  if (num_items_ == kMaxItems || format == nullptr) return;
  Item& item = items_[num_items_++];
  item.x = x;
  item.y = y;
  const float color[4] = {r, g, b, a};
  std::memcpy(item.color, color, sizeof color);
  std::vsnprintf(item.text, sizeof item.text, format, args);
}

void TextList::build(const GlyphAtlas& atlas, float scale) {
  num_vertices_ = 0;
  float* v = vertices_.get();
  for (int i = 0; i < num_items_; ++i) {
    const Item& item = items_[i];
    float pen = item.x;
    for (const unsigned char* c = reinterpret_cast<const unsigned char*>(item.text); *c; ++c) {
      if (*c < kFirst) continue;
      const GlyphAtlas::Glyph& g = atlas.glyphs[*c - kFirst];
      const float x0 = pen + g.x0 * scale, x1 = pen + g.x1 * scale;
      const float y0 = item.y + g.y0 * scale, y1 = item.y + g.y1 * scale;
      const float corners[6][4] = {{x0, y0, g.u0, g.v0}, {x1, y0, g.u1, g.v0},
                                   {x1, y1, g.u1, g.v1}, {x0, y0, g.u0, g.v0},
                                   {x1, y1, g.u1, g.v1}, {x0, y1, g.u0, g.v1}};
      for (const auto& k : corners) {
        const float vertex[kFloats] = {k[0],          k[1],          0.0f,          1.0f,
                                       item.color[0], item.color[1], item.color[2], item.color[3],
                                       k[2],          k[3]};
        std::memcpy(v + static_cast<size_t>(num_vertices_++) * kFloats, vertex, sizeof vertex);
      }
      pen += g.advance * scale;
    }
  }
}

void TextList::draw(GlRenderer* renderer, GLuint texture) const {
  if (renderer == nullptr || num_vertices_ == 0) return;
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_2D, texture);
  float model[16];
  zev_gl::identity(model);
  renderer->draw_vertices(vertices_.get(), num_vertices_, true, GL_TRIANGLES, model);
}

namespace {

// The host's font: one draw list, the bitmap and stb_truetype glyph sets.
class HostFont : public Font {
 public:
  HostFont(GlyphAtlas* bitmap, GlyphAtlas* baked, GpuProgram* program)
      : bitmap_(bitmap), baked_(baked), texture_(baked), program_(program) {}

  bool bitmap_font_linux_renderf(Renderer* renderer, RenderWindow* window, int x, int y, float r,
                                 float g, float b, float a, const char* format, ...) override {
    auto* gl = static_cast<GlRenderer*>(renderer);
    if (gl == nullptr || window == nullptr) return false;
    va_list args;
    va_start(args, format);
    now_.reset();
    now_.add(static_cast<float>(x), static_cast<float>(y), r, g, b, a, format, args);
    va_end(args);
    now_.build(*bitmap_, 1.0f);
    // Window pixels, origin top-left.
    float projection[16];
    zev_gl::identity(projection);
    projection[0] = 2.0f / static_cast<float>(window->get_width());
    projection[5] = -2.0f / static_cast<float>(window->get_height());
    projection[12] = -1.0f;
    projection[13] = 1.0f;
    float identity[16];
    zev_gl::identity(identity);
    GpuProgram* saved = gl->get_current_gpu_program();
    gl->set_camera(projection, identity, false);
    gl->use_gpu_program(program_);
    {
      AlphaBlending blending;
      now_.draw(gl, bitmap_->texture);
    }
    gl->use_gpu_program(saved);
    return true;
  }

  void bm_draw_reset() override { list_.reset(); }
  void bm_draw_text_2df(float x, float y, float r, float g, float b, float a, const char* format,
                        ...) override {
    va_list args;
    va_start(args, format);
    list_.add(x, y, r, g, b, a, format, args);
    va_end(args);
  }
  bool bm_update_vb(Renderer*, bool) override {
    list_.build(*bitmap_, scale_[0]);
    return true;
  }
  bool bm_render_vb(Renderer* renderer) override {
    list_.draw(static_cast<GlRenderer*>(renderer), bitmap_->texture);
    return true;
  }
  bool stbtt_update_vb(Renderer*, bool) override {
    list_.build(*baked_, scale_[0]);
    return true;
  }
  bool stbtt_render_vb(Renderer* renderer) override {
    list_.draw(static_cast<GlRenderer*>(renderer), baked_->texture);
    return true;
  }
  Texture* get_texture() override { return &texture_; }

 private:
  GlyphAtlas* bitmap_;
  GlyphAtlas* baked_;
  AtlasTexture texture_;
  GpuProgram* program_;
  TextList list_;
  TextList now_;
};

class FreeTypeText : public FreeTypeGLPluginInterface {
 public:
  explicit FreeTypeText(GlyphAtlas* atlas) : atlas_(atlas) {}
  void draw_reset(Renderer*, Font*) override { list_.reset(); }
  void draw_text_2df(Font*, float x, float y, float r, float g, float b, float a,
                     const char* format, ...) override {
    va_list args;
    va_start(args, format);
    list_.add(x, y, r, g, b, a, format, args);
    va_end(args);
  }
  bool render(Renderer* renderer, Font* font) override {
    list_.build(*atlas_, font != nullptr ? font->get_scale()[0] : 1.0f);
    AlphaBlending blending;
    list_.draw(static_cast<GlRenderer*>(renderer), atlas_->texture);
    return true;
  }

 private:
  GlyphAtlas* atlas_;
  TextList list_;
};

}  // namespace

struct TextResources::Fonts {
  GlyphAtlas bitmap, baked, smooth;
  std::unique_ptr<HostFont> font;
  std::unique_ptr<FreeTypeText> freetype;
};

std::unique_ptr<TextResources> TextResources::create(GlRenderer* renderer, int width, int height,
                                                     std::string* error) {
  std::unique_ptr<TextResources> text(new TextResources());
  text->fonts_ = std::make_unique<Fonts>();
  Fonts& f = *text->fonts_;
  const bool core = renderer->core_profile();
  if (!freetype_atlas(kMono, 12, true, core, &f.bitmap, error) ||
      !stb_atlas(kSans, 15.0f, core, &f.baked, error) ||
      !freetype_atlas(kSans, 14, false, core, &f.smooth, error))
    return nullptr;
  text->program_ = GpuProgramMgr::get()->create_gpu_program_from_shaders(
      renderer, core ? kTextVertex150 : kTextVertex120, core ? kTextFragment150 : kTextFragment120,
      nullptr, nullptr, nullptr, nullptr, nullptr);
  if (text->program_ == nullptr || !text->program_->is_valid()) {
    const char* log = text->program_ ? text->program_->get_shaders_info_log() : nullptr;
    *error = std::string("the text program does not build: ") + (log ? log : "no program");
    return nullptr;
  }
  f.font = std::make_unique<HostFont>(&f.bitmap, &f.baked, text->program_);
  f.freetype = std::make_unique<FreeTypeText>(&f.smooth);
  text->camera_ = new Camera();
  text->camera_->set_viewport(0, 0, width, height);
  text->camera_->build_projection_ortho(0.0f, static_cast<float>(width), static_cast<float>(height),
                                        0.0f, -1.0f, 1.0f, true);
  return text;
}

TextResources::~TextResources() {
  if (camera_ != nullptr) camera_->release(nullptr, nullptr);
  GpuProgramMgr::get()->release_gpu_program(nullptr, program_, false);
}

Font* TextResources::font() { return fonts_->font.get(); }
FreeTypeGLPluginInterface* TextResources::freetype() { return fonts_->freetype.get(); }

}  // namespace zev
