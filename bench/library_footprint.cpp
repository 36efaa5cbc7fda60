// What loading the plug-in costs every process that loads it: the dynamic
// relocations the loader applies (counted from the file's dynamic section)
// and the private dirty memory of the plug-in's mappings right after dlopen
// (summed from /proc/self/smaps), with the time of one dlopen and dlclose.
// Goals: fewer than 500 relocations, less than 32 KB private dirty.
//
//   build/bin/library_footprint [--benchmark_filter=...]
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

// Relocation entries of the dynamic section (RELA and the PLT's), or -1 when
// the file is no 64-bit ELF object with one.
long count_relocations(const char* path) {
  std::ifstream file(path, std::ios::binary);
  Elf64_Ehdr header{};
  if (!file.read(reinterpret_cast<char*>(&header), sizeof header) ||
      std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64)
    return -1;
  std::vector<Elf64_Phdr> segments(header.e_phnum);
  file.seekg(static_cast<std::streamoff>(header.e_phoff));
  if (!file.read(reinterpret_cast<char*>(segments.data()),
                 static_cast<std::streamsize>(segments.size() * sizeof(Elf64_Phdr))))
    return -1;
  for (const Elf64_Phdr& segment : segments) {
    if (segment.p_type != PT_DYNAMIC) continue;
    std::vector<Elf64_Dyn> entries(segment.p_filesz / sizeof(Elf64_Dyn));
    file.seekg(static_cast<std::streamoff>(segment.p_offset));
    if (!file.read(reinterpret_cast<char*>(entries.data()),
                   static_cast<std::streamsize>(entries.size() * sizeof(Elf64_Dyn))))
      return -1;
    unsigned long rela_bytes = 0, plt_bytes = 0, entry_bytes = sizeof(Elf64_Rela);
    for (const Elf64_Dyn& entry : entries) {
      if (entry.d_tag == DT_RELASZ) rela_bytes = entry.d_un.d_val;
      if (entry.d_tag == DT_PLTRELSZ) plt_bytes = entry.d_un.d_val;
      if (entry.d_tag == DT_RELAENT) entry_bytes = entry.d_un.d_val;
    }
    return static_cast<long>((rela_bytes + plt_bytes) / entry_bytes);
  }
  return -1;
}

// Private_Dirty of every mapping of `path` in this process, in KB.
long private_dirty_kb(const std::string& path) {
  std::ifstream smaps("/proc/self/smaps");
  std::string line;
  bool ours = false;
  long total = 0;
  while (std::getline(smaps, line)) {
    const size_t dash = line.find('-');
    const size_t space = line.find(' ');
    if (dash != std::string::npos && space != std::string::npos && dash < space) {
      // A mapping's first line: "start-end perms offset dev inode  path".
      const size_t slash = line.find('/');
      ours = slash != std::string::npos && line.compare(slash, std::string::npos, path) == 0;
    } else if (ours && line.rfind("Private_Dirty:", 0) == 0) {
      total += std::strtol(line.c_str() + 14, nullptr, 10);
    }
  }
  return total;
}

// A file the linker has just written still has dirty pages in the page
// cache, and smaps counts them as the mapping's own until they are written
// back: flush them, so that only the loader's own writes remain.
void flush_file(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

void BM_LoadPlugin(benchmark::State& state) {
  char path[PATH_MAX];
  if (realpath(ZEV_PLUGIN_PATH, path) == nullptr) {
    state.SkipWithError("no plug-in at " ZEV_PLUGIN_PATH);
    return;
  }
  flush_file(path);
  long dirty_kb = -1;
  for (auto _ : state) {
    void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      state.SkipWithError(dlerror());
      return;
    }
    if (dirty_kb < 0) {
      state.PauseTiming();
      dirty_kb = private_dirty_kb(path);
      state.ResumeTiming();
    }
    dlclose(handle);
  }
  state.counters["relocations"] = static_cast<double>(count_relocations(path));
  state.counters["private_dirty_KB"] = static_cast<double>(dirty_kb);
}
BENCHMARK(BM_LoadPlugin)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
