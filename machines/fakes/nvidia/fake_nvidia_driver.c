/* A stand-in for the NVIDIA kernel driver's device files, as an interposing
 * library (LD_PRELOAD, or linked into a test): open/openat, ioctl and close
 * of "/dev/nvidiactl" and "/dev/nvidia<N>" are answered here whenever those
 * paths are regular files, which is what a fake machine's dev/ folder puts
 * there. Every other path and descriptor goes straight to the kernel, and so
 * do real device nodes (character devices) on a machine with the driver.
 *
 * The files hold the driver's answers, one "key value" a line ('#' starts a
 * comment line):
 *
 *   dev/nvidiactl
 *     client 0xc1d00042       handle given to a new client (default 0xc1d00001)
 *     client_status 0         status of the client allocation
 *     client_ioctl 0          -1: ioctl() itself fails (EINVAL)
 *   dev/nvidia<N>
 *     rops 12 8 96            the three words of the ROP query (no line: 0x56)
 *     instance 0              device instance of this GPU (default N)
 *     register_ioctl 0        -1: registering the control descriptor fails
 *     device_status 0         device_ioctl 0
 *     subdevice_status 0      subdevice_ioctl 0
 *     query_status 0          query_ioctl 0
 *
 * Requests are checked as the driver checks them: request codes and sizes,
 * which descriptor they go to, handles and classes, parameter sizes.
 * Allocating a device object needs the control descriptor registered with
 * the device file of that device instance (0x1B otherwise, as the driver's
 * "insufficient permissions"). Malformed requests make ioctl() fail with
 * EINVAL; refused ones come back with a non-zero status.
 *
 * Every open, request and close on these paths is logged, in memory for
 * tests in the same process (zev_fake_nvidia_driver_log), and appended to
 * the file named by ZEV_FAKE_NVIDIA_DRIVER_LOG when that is set. */
#undef _FORTIFY_SOURCE
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "fake_text.h"

#define REQ_REGISTER_FD 0xC00446C9ul
#define REQ_ALLOC_SHORT 0xC020462Bul
#define REQ_ALLOC_LONG 0xC030462Bul
#define REQ_CONTROL 0xC020462Aul

#define CLASS_ROOT 0x0u
#define CLASS_DEVICE 0x80u
#define CLASS_SUBDEVICE 0x2080u
#define CMD_GET_ROP_INFO 0x20801213u

#define STATUS_INSUFFICIENT_PERMISSIONS 0x1Bu
#define STATUS_INVALID_ARGUMENT 0x1Fu
#define STATUS_INVALID_STATE 0x40u
#define STATUS_NOT_SUPPORTED 0x56u

#define DEVICE_PARAMS_SIZE 56
#define SUBDEVICE_PARAMS_SIZE 4

#define MAX_FDS 4096

typedef struct {
  uint32_t root, parent, new_handle, object_class;
  uint64_t params;
  uint32_t params_size, status;
} AllocShort;

typedef struct {
  uint32_t root, parent, new_handle, object_class;
  uint64_t params, rights;
  uint32_t params_size, flags, status, reserved;
} AllocLong;

typedef struct {
  uint32_t client, object, command, flags;
  uint64_t params;
  uint32_t params_size, status;
} Control;

_Static_assert(sizeof(AllocShort) == 32, "short allocation");
_Static_assert(sizeof(AllocLong) == 48, "long allocation");
_Static_assert(sizeof(Control) == 32, "control");

enum { KIND_NONE = 0, KIND_CONTROL, KIND_GPU };

typedef struct {
  int kind;
  char name[32]; /* "nvidiactl", "nvidia0" */
  /* control device: its data, and what has been allocated through it */
  uint32_t client;
  uint32_t client_status;
  int client_ioctl;
  uint32_t client_handle; /* 0 until a client exists */
  int registered_gpu;     /* descriptor of the device file it was registered with, or -1 */
  uint32_t device_handle;
  uint32_t subdevice_handle;
  /* GPU device file: its data */
  int minor;
  int has_rops;
  uint32_t rops[3];
  uint32_t instance;
  int register_ioctl;
  uint32_t device_status, subdevice_status, query_status;
  int device_ioctl, subdevice_ioctl, query_ioctl;
} FakeFd;

static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static FakeFd g_fds[MAX_FDS];
static char g_log[1 << 16];
static size_t g_log_size;
static int g_open_fds;

/* ------------------------------------------------------------------- log */

static void log_line(const char* format, ...) __attribute__((format(printf, 1, 2)));
static void log_line(const char* format, ...) {
  char line[512];
  va_list args;
  va_start(args, format);
  vsnprintf(line, sizeof line, format, args);
  va_end(args);
  size_t n = strlen(line);
  if (g_log_size + n + 2 < sizeof g_log) {
    memcpy(g_log + g_log_size, line, n);
    g_log_size += n;
    g_log[g_log_size++] = '\n';
    g_log[g_log_size] = '\0';
  }
  const char* file = getenv("ZEV_FAKE_NVIDIA_DRIVER_LOG");
  if (file != NULL && *file != '\0') fake_append_line(file, line);
}

const char* zev_fake_nvidia_driver_log(void) { return g_log; }

void zev_fake_nvidia_driver_reset(void) {
  pthread_mutex_lock(&g_lock);
  g_log_size = 0;
  g_log[0] = '\0';
  pthread_mutex_unlock(&g_lock);
}

int zev_fake_nvidia_driver_open_fds(void) {
  pthread_mutex_lock(&g_lock);
  int n = g_open_fds;
  pthread_mutex_unlock(&g_lock);
  return n;
}

/* Closes every descriptor of these device files that is still open. */
void zev_fake_nvidia_driver_close_all(void) {
  for (int fd = 0; fd < MAX_FDS; ++fd) {
    if (g_fds[fd].kind != KIND_NONE) close(fd);
  }
}

static void flags_text(int flags, char* out, size_t size) {
  const int access = flags & O_ACCMODE;
  snprintf(out, size, "%s",
           access == O_RDONLY   ? "O_RDONLY"
           : access == O_WRONLY ? "O_WRONLY"
                                : "O_RDWR");
  int rest = flags & ~O_ACCMODE;
  if (rest & O_CLOEXEC) {
    strncat(out, "|O_CLOEXEC", size - strlen(out) - 1);
    rest &= ~O_CLOEXEC;
  }
  if (rest != 0) {
    char extra[32];
    snprintf(extra, sizeof extra, "|0x%x", (unsigned)rest);
    strncat(out, extra, size - strlen(out) - 1);
  }
}

/* --------------------------------------------------------- device files */

/* "/dev/nvidiactl" -> -1, "/dev/nvidia<N>" -> N, anything else -> -2. */
static int classify(const char* path) {
  if (path == NULL || strncmp(path, "/dev/nvidia", 11) != 0) return -2;
  const char* rest = path + 11;
  if (strcmp(rest, "ctl") == 0) return -1;
  if (*rest == '\0') return -2;
  int minor = 0;
  for (; *rest != '\0'; ++rest) {
    if (*rest < '0' || *rest > '9' || minor > 100000) return -2;
    minor = minor * 10 + (*rest - '0');
  }
  return minor;
}

static int parse_int(const char* text) { return (int)strtol(text, NULL, 0); }
static uint32_t parse_u32(const char* text) { return (uint32_t)strtoul(text, NULL, 0); }

static void load_data(FakeFd* f, const char* path) {
  char* text = fake_read_file(path);
  if (text == NULL) return;
  char* cursor = text;
  for (char* line; (line = fake_next_line(&cursor)) != NULL;) {
    if (*line == '\0' || *line == '#') continue;
    char* value = NULL;
    char* key = fake_split_key(line, &value);
    if (strcmp(key, "client") == 0)
      f->client = parse_u32(value);
    else if (strcmp(key, "client_status") == 0)
      f->client_status = parse_u32(value);
    else if (strcmp(key, "client_ioctl") == 0)
      f->client_ioctl = parse_int(value);
    else if (strcmp(key, "instance") == 0)
      f->instance = parse_u32(value);
    else if (strcmp(key, "register_ioctl") == 0)
      f->register_ioctl = parse_int(value);
    else if (strcmp(key, "device_status") == 0)
      f->device_status = parse_u32(value);
    else if (strcmp(key, "device_ioctl") == 0)
      f->device_ioctl = parse_int(value);
    else if (strcmp(key, "subdevice_status") == 0)
      f->subdevice_status = parse_u32(value);
    else if (strcmp(key, "subdevice_ioctl") == 0)
      f->subdevice_ioctl = parse_int(value);
    else if (strcmp(key, "query_status") == 0)
      f->query_status = parse_u32(value);
    else if (strcmp(key, "query_ioctl") == 0)
      f->query_ioctl = parse_int(value);
    else if (strcmp(key, "rops") == 0) {
      unsigned a = 0, b = 0, c = 0;
      if (sscanf(value, "%u %u %u", &a, &b, &c) == 3) {
        f->has_rops = 1;
        f->rops[0] = a;
        f->rops[1] = b;
        f->rops[2] = c;
      }
    }
  }
  free(text);
}

static long forward_openat(int dirfd, const char* path, int flags, mode_t mode) {
  return syscall(SYS_openat, dirfd, path, flags, mode);
}

static int fake_open(int dirfd, const char* path, int flags, mode_t mode) {
  const int minor = classify(path);
  if (minor == -2) return (int)forward_openat(dirfd, path, flags, mode);
  /* Creating or truncating: someone lays the machine out, nobody opens a
   * device. */
  if ((flags & (O_CREAT | O_TRUNC)) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    return (int)forward_openat(dirfd, path, flags, mode);
  }

  struct stat st;
  const int exists = syscall(SYS_newfstatat, AT_FDCWD, path, &st, 0) == 0;
  if (exists && !S_ISREG(st.st_mode)) return (int)forward_openat(dirfd, path, flags, mode);

  char flag_text[96];
  flags_text(flags, flag_text, sizeof flag_text);
  pthread_mutex_lock(&g_lock);
  const int fd = (int)forward_openat(dirfd, path, flags, mode);
  const int saved = errno;
  if (fd < 0) {
    log_line("open %s %s -> %s", path, flag_text,
             saved == ENOENT ? "no such file" : strerror(saved));
    pthread_mutex_unlock(&g_lock);
    errno = saved;
    return -1;
  }
  if (fd < MAX_FDS) {
    FakeFd* f = &g_fds[fd];
    memset(f, 0, sizeof *f);
    f->kind = minor == -1 ? KIND_CONTROL : KIND_GPU;
    fake_copy(f->name, sizeof f->name, path + 5);
    f->client = 0xC1D00001u;
    f->registered_gpu = -1;
    f->minor = minor;
    f->instance = minor >= 0 ? (uint32_t)minor : 0;
    load_data(f, path);
    ++g_open_fds;
  }
  log_line("open %s %s -> fd", path, flag_text);
  pthread_mutex_unlock(&g_lock);
  return fd;
}

static mode_t mode_argument(int flags, va_list args) {
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) return (mode_t)va_arg(args, int);
  return 0;
}

int open(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  mode_t mode = mode_argument(flags, args);
  va_end(args);
  return fake_open(AT_FDCWD, path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  mode_t mode = mode_argument(flags, args);
  va_end(args);
  return fake_open(AT_FDCWD, path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  mode_t mode = mode_argument(flags, args);
  va_end(args);
  return fake_open(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  mode_t mode = mode_argument(flags, args);
  va_end(args);
  return fake_open(dirfd, path, flags, mode);
}

int __open_2(const char* path, int flags) { return fake_open(AT_FDCWD, path, flags, 0); }
int __open64_2(const char* path, int flags) { return fake_open(AT_FDCWD, path, flags, 0); }
int __openat_2(int dirfd, const char* path, int flags) { return fake_open(dirfd, path, flags, 0); }
int __openat64_2(int dirfd, const char* path, int flags) {
  return fake_open(dirfd, path, flags, 0);
}

int close(int fd) {
  if (fd >= 0 && fd < MAX_FDS && g_fds[fd].kind != KIND_NONE) {
    pthread_mutex_lock(&g_lock);
    if (g_fds[fd].kind != KIND_NONE) {
      log_line("close %s", g_fds[fd].name);
      /* A control descriptor registered elsewhere is forgotten with it. */
      for (int i = 0; i < MAX_FDS; ++i) {
        if (g_fds[i].kind == KIND_CONTROL && g_fds[i].registered_gpu == fd) {
          g_fds[i].registered_gpu = -1;
        }
      }
      g_fds[fd].kind = KIND_NONE;
      --g_open_fds;
    }
    pthread_mutex_unlock(&g_lock);
  }
  return (int)syscall(SYS_close, fd);
}

/* ---------------------------------------------------------------- ioctls */

static int fail_ioctl(const char* what) {
  log_line("  %s -> ioctl fails (EINVAL)", what);
  errno = EINVAL;
  return -1;
}

static const char* zero_params(uint64_t address, size_t size) {
  if (address == 0) return "null";
  unsigned char copy[64];
  memcpy(copy, (const void*)(uintptr_t)address, size); /* the driver copies them in */
  for (size_t i = 0; i < size; ++i) {
    if (copy[i] != 0) return "not zeroed";
  }
  return "zeroed";
}

static int alloc_client(FakeFd* ctl, AllocShort* request) {
  AllocShort r;
  memcpy(&r, request, sizeof r);
  log_line("ioctl %s ALLOC(32) root=0x%x parent=0x%x new=0x%x class=0x%x params=%s size=%u",
           ctl->name, r.root, r.parent, r.new_handle, r.object_class,
           r.params != 0 ? "set" : "null", r.params_size);
  if (ctl->client_ioctl == -1) return fail_ioctl("client allocation");
  if (r.object_class != CLASS_ROOT || r.root != 0 || r.parent != 0 || r.new_handle != 0) {
    r.status = STATUS_INVALID_ARGUMENT;
  } else {
    r.status = ctl->client_status;
    if (r.status == 0) {
      r.new_handle = ctl->client;
      ctl->client_handle = ctl->client;
    }
  }
  log_line("  -> status=0x%x new=0x%x", r.status, r.new_handle);
  memcpy(request, &r, sizeof r);
  return 0;
}

static int alloc_object(FakeFd* ctl, AllocLong* request) {
  AllocLong r;
  memcpy(&r, request, sizeof r);
  const size_t params_size = r.object_class == CLASS_DEVICE      ? DEVICE_PARAMS_SIZE
                             : r.object_class == CLASS_SUBDEVICE ? SUBDEVICE_PARAMS_SIZE
                                                                 : 0;
  log_line(
      "ioctl %s ALLOC(48) root=0x%x parent=0x%x new=0x%x class=0x%x params=%s(%zu) "
      "rights=0x%llx size=%u flags=0x%x",
      ctl->name, r.root, r.parent, r.new_handle, r.object_class,
      params_size != 0 ? zero_params(r.params, params_size) : "-", params_size,
      (unsigned long long)r.rights, r.params_size, r.flags);

  FakeFd* gpu = ctl->registered_gpu >= 0 ? &g_fds[ctl->registered_gpu] : NULL;
  if (ctl->client_handle == 0 || r.root != ctl->client_handle || r.new_handle == 0 ||
      r.params == 0) {
    r.status = STATUS_INVALID_ARGUMENT;
  } else if (r.object_class == CLASS_DEVICE) {
    uint32_t instance = 0;
    memcpy(&instance, (const void*)(uintptr_t)r.params, sizeof instance);
    if (r.parent != ctl->client_handle || ctl->device_handle != 0) {
      r.status = STATUS_INVALID_ARGUMENT;
    } else if (gpu == NULL || gpu->kind != KIND_GPU || gpu->instance != instance) {
      r.status = STATUS_INSUFFICIENT_PERMISSIONS;
    } else if (gpu->device_ioctl == -1) {
      return fail_ioctl("device allocation");
    } else {
      r.status = gpu->device_status;
      if (r.status == 0) ctl->device_handle = r.new_handle;
    }
  } else if (r.object_class == CLASS_SUBDEVICE) {
    uint32_t subdevice = 0;
    memcpy(&subdevice, (const void*)(uintptr_t)r.params, sizeof subdevice);
    if (ctl->device_handle == 0 || r.parent != ctl->device_handle || subdevice != 0) {
      r.status = STATUS_INVALID_ARGUMENT;
    } else if (gpu == NULL) {
      r.status = STATUS_INVALID_STATE;
    } else if (gpu->subdevice_ioctl == -1) {
      return fail_ioctl("sub-device allocation");
    } else {
      r.status = gpu->subdevice_status;
      if (r.status == 0) ctl->subdevice_handle = r.new_handle;
    }
  } else {
    r.status = STATUS_NOT_SUPPORTED;
  }
  log_line("  -> status=0x%x", r.status);
  memcpy(request, &r, sizeof r);
  return 0;
}

static int control(FakeFd* ctl, Control* request) {
  Control r;
  memcpy(&r, request, sizeof r);
  log_line("ioctl %s CONTROL(32) client=0x%x object=0x%x cmd=0x%x flags=0x%x params=%s size=%u",
           ctl->name, r.client, r.object, r.command, r.flags,
           r.params_size == 12 ? zero_params(r.params, 12) : (r.params != 0 ? "set" : "null"),
           r.params_size);
  FakeFd* gpu = ctl->registered_gpu >= 0 ? &g_fds[ctl->registered_gpu] : NULL;
  uint32_t words[3] = {0, 0, 0};
  int answer = 0;
  if (ctl->client_handle == 0 || r.client != ctl->client_handle || ctl->subdevice_handle == 0 ||
      r.object != ctl->subdevice_handle) {
    r.status = STATUS_INVALID_ARGUMENT;
  } else if (r.command != CMD_GET_ROP_INFO) {
    r.status = STATUS_NOT_SUPPORTED;
  } else if (r.params == 0 || r.params_size != sizeof words) {
    r.status = STATUS_INVALID_ARGUMENT;
  } else if (gpu == NULL) {
    r.status = STATUS_INVALID_STATE;
  } else if (gpu->query_ioctl == -1) {
    return fail_ioctl("ROP query");
  } else if (gpu->query_status != 0) {
    r.status = gpu->query_status;
  } else if (!gpu->has_rops) {
    r.status = STATUS_NOT_SUPPORTED;
  } else {
    r.status = 0;
    memcpy(words, gpu->rops, sizeof words);
    answer = 1;
  }
  if (answer) {
    memcpy((void*)(uintptr_t)r.params, words, sizeof words);
    log_line("  -> status=0x0 rops=%u %u %u", words[0], words[1], words[2]);
  } else {
    log_line("  -> status=0x%x", r.status);
  }
  memcpy(request, &r, sizeof r);
  return 0;
}

static int register_fd(FakeFd* gpu, int fd, const int* argument) {
  int control_fd = -1;
  if (argument != NULL) memcpy(&control_fd, argument, sizeof control_fd);
  log_line("ioctl %s REGISTER_FD(4) fd=%s", gpu->name,
           control_fd >= 0 && control_fd < MAX_FDS && g_fds[control_fd].kind == KIND_CONTROL
               ? g_fds[control_fd].name
               : "not a control descriptor");
  if (gpu->register_ioctl == -1) return fail_ioctl("registration");
  if (control_fd < 0 || control_fd >= MAX_FDS || g_fds[control_fd].kind != KIND_CONTROL) {
    return fail_ioctl("registration");
  }
  g_fds[control_fd].registered_gpu = fd;
  log_line("  -> 0");
  return 0;
}

int ioctl(int fd, unsigned long request, ...) {
  va_list args;
  va_start(args, request);
  void* argument = va_arg(args, void*);
  va_end(args);

  if (fd < 0 || fd >= MAX_FDS || g_fds[fd].kind == KIND_NONE) {
    return (int)syscall(SYS_ioctl, fd, request, argument);
  }
  pthread_mutex_lock(&g_lock);
  FakeFd* f = &g_fds[fd];
  int rc;
  if (argument == NULL) {
    log_line("ioctl %s 0x%lX without argument", f->name, request);
    rc = fail_ioctl("request");
  } else if (f->kind == KIND_CONTROL && request == REQ_ALLOC_SHORT) {
    rc = alloc_client(f, (AllocShort*)argument);
  } else if (f->kind == KIND_CONTROL && request == REQ_ALLOC_LONG) {
    rc = alloc_object(f, (AllocLong*)argument);
  } else if (f->kind == KIND_CONTROL && request == REQ_CONTROL) {
    rc = control(f, (Control*)argument);
  } else if (f->kind == KIND_GPU && request == REQ_REGISTER_FD) {
    rc = register_fd(f, fd, (const int*)argument);
  } else {
    log_line("ioctl %s 0x%lX", f->name, request);
    rc = fail_ioctl("unexpected request");
  }
  pthread_mutex_unlock(&g_lock);
  return rc;
}
