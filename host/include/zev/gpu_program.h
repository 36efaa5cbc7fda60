// GPU programs: shaders compiled and linked by the framework's program
// manager. The OpenGL context must be current on the calling thread.
#pragma once

namespace zev {

class Renderer;

class GpuProgram {
 public:
  GpuProgram();
  ~GpuProgram();
  GpuProgram(const GpuProgram&) = delete;
  GpuProgram& operator=(const GpuProgram&) = delete;

  // True when every shader compiled and the program linked.
  bool is_valid() const { return valid_; }
  // Checks that the context can run the program (it validates and can be
  // used); false otherwise.
  bool activate(Renderer* renderer);
  // Puts the program in use through the renderer, or takes it out.
  void bind(Renderer* renderer);
  void unbind(Renderer* renderer);
  // Sets a vec4 uniform of the program, which is put in use for it.
  void set_uniform_4f(Renderer* renderer, const char* name, float x, float y, float z, float w);
  // Compiler and linker messages, or null when there were none.
  const char* get_shaders_info_log() const;

  unsigned int handle() const { return program_; }

 private:
  friend class GpuProgramMgr;
  unsigned int program_ = 0;
  bool valid_ = false;
  char* log_ = nullptr;
};

class GpuProgramMgr {
 public:
  static GpuProgramMgr* get();
  // Compiles and links a program from a vertex and a fragment shader (the
  // five further stages - tessellation control, tessellation evaluation,
  // geometry, compute and a spare - may be null, and are when the context
  // cannot run them). Returns null only when no program object could be made;
  // a program that fails to compile or link is returned invalid, with its log.
  GpuProgram* create_gpu_program_from_shaders(Renderer* renderer, const char* vertex,
                                              const char* fragment, const char* tess_control,
                                              const char* tess_evaluation, const char* geometry,
                                              const char* compute, const char* spare);
  // Deletes a program made by create_gpu_program_from_shaders. `keep_shaders`
  // is accepted for callers that share shaders; this manager shares none.
  void release_gpu_program(Renderer* renderer, GpuProgram* program, bool keep_shaders);
};

}  // namespace zev
