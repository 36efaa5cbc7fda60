// Text of the framework. A font holds one draw list of text items (reset,
// then text added at pixel positions, origin at the top-left corner of the
// window, y down) and turns it into vertices with one of its glyph sets:
//   - bm_*: a bitmap font (fixed-size glyphs rendered once from the font file);
//   - stbtt_*: glyphs baked by stb_truetype, drawn with the font's glyph texture;
// and bitmap_font_linux_renderf draws one text straight into a window.
// Texts are Latin-1: the byte 0xB0 is the degree sign.
#pragma once

#include "zev/scene.h"

namespace zev {

class Renderer;
class RenderWindow;
class GpuProgram;

// A texture bound to a texture unit for the program that samples it.
class Texture {
 public:
  virtual ~Texture();
  virtual void bind(Renderer* renderer, int unit) = 0;
};

class Font : public Object {
 public:
  // Draws a formatted text at (x, y) of the window, with the framework's own
  // text program, now.
  virtual bool bitmap_font_linux_renderf(Renderer* renderer, RenderWindow* window, int x, int y,
                                         float r, float g, float b, float a, const char* format,
                                         ...) __attribute__((format(printf, 10, 11))) = 0;
  virtual void bm_draw_reset() = 0;
  virtual void bm_draw_text_2df(float x, float y, float r, float g, float b, float a,
                                const char* format, ...) __attribute__((format(printf, 8, 9))) = 0;
  // Builds the draw list's vertices with the bitmap glyphs, and draws them
  // with the program in use (which samples texture unit 0).
  virtual bool bm_update_vb(Renderer* renderer, bool keep_list) = 0;
  virtual bool bm_render_vb(Renderer* renderer) = 0;
  // The same with the stb_truetype glyphs; their texture is get_texture().
  virtual bool stbtt_update_vb(Renderer* renderer, bool keep_list) = 0;
  virtual bool stbtt_render_vb(Renderer* renderer) = 0;
  virtual Texture* get_texture() = 0;
};

// Text through a FreeType font plug-in: its own draw list and glyphs,
// rendered with the program in use.
class FreeTypeGLPluginInterface {
 public:
  virtual ~FreeTypeGLPluginInterface();
  virtual void draw_reset(Renderer* renderer, Font* font) = 0;
  virtual void draw_text_2df(Font* font, float x, float y, float r, float g, float b, float a,
                             const char* format, ...) __attribute__((format(printf, 9, 10))) = 0;
  virtual bool render(Renderer* renderer, Font* font) = 0;
};

}  // namespace zev
