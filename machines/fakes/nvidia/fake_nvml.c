/* A stand-in for NVIDIA's management library, libnvidia-ml.so.1, driven by
 * the data of the fake machine it is installed in.
 *
 * Data: nvidia/nvml.conf of the machine (the folder above the lib/ this
 * library was loaded from), or the file named by ZEV_FAKE_NVML_CONF. It is
 * read at start-up (nvmlInit/nvmlInit_v2, when not already started):
 *
 *   # library
 *   init 0                       what start-up returns (default 0)
 *   count 2                      device count (default: highest device + 1)
 *   nvml_version 12.570.133.07   driver_version 570.133.07
 *   process_name.4242 /usr/bin/blender
 *   fail <call>[.<arg>] <code> [from <n>]
 *
 *   device 0                     (or a range: device 0-16)
 *   name NVIDIA GeForce RTX 5090
 *   temperature 38 41 45         a list is answered in turn, then again
 *   fail nvmlDeviceGetTemperatureThreshold.1 3
 *
 * Device values (a key left out makes its call answer NOT_SUPPORTED):
 *   name serial brand pci_domain pci_bus pci_device pci_device_id
 *   pci_subsystem_id architecture cores memory_bus_width multiprocessors
 *   memory_total memory_used cuda_major cuda_minor temperature threshold.<t>
 *   num_fans fan_speed fan.<f> fan_rpm.<f> max_clock.<c> clock.<c>
 *   boost_clock.<c> utilization.gpu utilization.memory power energy
 *   enforced_limit default_limit power_limit limit_min limit_max pstate
 *   pcie.<counter> throttle processes process_sizing process_count
 *   vbios_version
 * Device values given before the first "device" line are every device's
 * defaults. "processes" lists samples as pid:timestamp:sm:mem:enc:dec;
 * "process_count" is a count the process query claims instead of the true
 * one (a misbehaving library), while it writes no more samples than fit.
 * "fail" makes a call answer <code>; with ".<arg>" only for that clock type,
 * threshold, fan, counter or index; with "from <n>" from its n-th matching
 * call on. An unknown key makes start-up fail (UNKNOWN, 999) with a message
 * on stderr, so that a typing error in a machine does not go unseen.
 *
 * Behaviour follows the real library where the monitor can see it: calls
 * before start-up answer UNINITIALIZED, bad handles INVALID_ARGUMENT, short
 * buffers INSUFFICIENT_SIZE, a sizing call for process samples
 * INSUFFICIENT_SIZE (samples exist) or NOT_FOUND (none), and nothing is
 * written on failure. Every output is written with memcpy, so that a
 * too-small structure on the caller's side is seen by AddressSanitizer.
 *
 * Which symbols exist is decided at link time: the build makes variants of
 * this library that each leave some entry points out (see CMakeLists.txt).
 *
 * For tests and benchmarks: zev_fake_nvml_calls() counts every NVML call,
 * zev_fake_nvml_calls_of(name) the calls of one entry point, and with
 * ZEV_FAKE_NVML_LOG set when the library is loaded, each call appends its
 * name to that file. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "fake_text.h"

typedef int nvmlReturn_t;
typedef void* nvmlDevice_t;

enum {
  NVML_SUCCESS = 0,
  NVML_ERROR_UNINITIALIZED = 1,
  NVML_ERROR_INVALID_ARGUMENT = 2,
  NVML_ERROR_NOT_SUPPORTED = 3,
  NVML_ERROR_NOT_FOUND = 6,
  NVML_ERROR_INSUFFICIENT_SIZE = 7,
  NVML_ERROR_DRIVER_NOT_LOADED = 9,
  NVML_ERROR_ARGUMENT_VERSION_MISMATCH = 25,
  NVML_ERROR_UNKNOWN = 999
};

typedef struct {
  char busId[16];
  unsigned int domain, bus, device, pciDeviceId, pciSubSystemId;
  unsigned int reserved0, reserved1, reserved2, reserved3;
} nvmlPciInfo_t;

typedef struct {
  unsigned int gpu, memory;
} nvmlUtilization_t;

typedef struct {
  unsigned long long total, free, used;
} nvmlMemory_t;

typedef struct {
  unsigned int multiprocessorCount, sharedCopyEngineCount, sharedDecoderCount, sharedEncoderCount,
      sharedJpegCount, sharedOfaCount, gpuInstanceSliceCount, computeInstanceSliceCount;
  unsigned long long memorySizeMB;
} nvmlDeviceAttributes_t;

typedef struct {
  unsigned int version, fan, speed;
} nvmlFanSpeedInfo_t;

typedef struct {
  unsigned int pid;
  unsigned long long timeStamp;
  unsigned int smUtil, memUtil, encUtil, decUtil;
} nvmlProcessUtilizationSample_t;

typedef struct {
  unsigned int pid;
  unsigned long long usedGpuMemory;
} nvmlProcessInfo_t;

_Static_assert(sizeof(nvmlPciInfo_t) == 52, "original PCI info layout");
_Static_assert(sizeof(nvmlDeviceAttributes_t) == 40, "attributes layout");
_Static_assert(sizeof(nvmlFanSpeedInfo_t) == 12, "fan speed info layout");
_Static_assert(sizeof(nvmlProcessUtilizationSample_t) == 32, "process sample layout");

#define FAN_SPEED_INFO_VERSION 0x0100000Cu

#define MAX_DEVICES 32
#define MAX_ENTRIES 96
#define MAX_VALUES 16
#define MAX_FAILS 32
#define MAX_SAMPLES 64

typedef struct {
  char key[48];
  char text[512];
  unsigned long long values[MAX_VALUES];
  int nvalues;
  int cursor;
} Entry;

typedef struct {
  char call[96];
  int code;
  unsigned long from;
  unsigned long seen;
} Failure;

typedef struct {
  Entry entries[MAX_ENTRIES];
  int nentries;
  Failure fails[MAX_FAILS];
  int nfails;
} Scope;

static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static Scope g_library;
static Scope g_devices[MAX_DEVICES];
static unsigned int g_count;
static int g_init_code;
static int g_started;
static char g_log_path[4096];

/* Call counters. */
static unsigned long g_calls;
static struct {
  const char* name;
  unsigned long calls;
} g_call_counts[64];

/* The call log is named when the library is loaded. */
__attribute__((constructor)) static void name_call_log(void) {
  const char* log = getenv("ZEV_FAKE_NVML_LOG");
  fake_copy(g_log_path, sizeof g_log_path, log != NULL ? log : "");
}

static void count_call(const char* name) {
  __atomic_add_fetch(&g_calls, 1, __ATOMIC_RELAXED);
  for (size_t i = 0; i < sizeof g_call_counts / sizeof g_call_counts[0]; ++i) {
    if (g_call_counts[i].name == NULL) g_call_counts[i].name = name;
    if (strcmp(g_call_counts[i].name, name) == 0) {
      __atomic_add_fetch(&g_call_counts[i].calls, 1, __ATOMIC_RELAXED);
      break;
    }
  }
  if (g_log_path[0] != '\0') fake_append_line(g_log_path, name);
}

unsigned long zev_fake_nvml_calls(void) { return __atomic_load_n(&g_calls, __ATOMIC_RELAXED); }

unsigned long zev_fake_nvml_calls_of(const char* name) {
  unsigned long n = 0;
  pthread_mutex_lock(&g_lock);
  for (size_t i = 0; i < sizeof g_call_counts / sizeof g_call_counts[0]; ++i) {
    if (g_call_counts[i].name != NULL && strcmp(g_call_counts[i].name, name) == 0) {
      n = g_call_counts[i].calls;
    }
  }
  pthread_mutex_unlock(&g_lock);
  return n;
}

void zev_fake_nvml_reset_calls(void) {
  pthread_mutex_lock(&g_lock);
  __atomic_store_n(&g_calls, 0, __ATOMIC_RELAXED);
  for (size_t i = 0; i < sizeof g_call_counts / sizeof g_call_counts[0]; ++i) {
    g_call_counts[i].calls = 0;
  }
  pthread_mutex_unlock(&g_lock);
}

/* ------------------------------------------------------------ machine data */

static const char* const kTextKeys[] = {"name",         "serial",         "processes",
                                        "nvml_version", "driver_version", "vbios_version"};
static const char* const kDeviceKeys[] = {"name",          "serial",           "brand",
                                          "pci_domain",    "pci_bus",          "pci_device",
                                          "pci_device_id", "pci_subsystem_id", "architecture",
                                          "cores",         "memory_bus_width", "multiprocessors",
                                          "memory_total",  "memory_used",      "cuda_major",
                                          "cuda_minor",    "temperature",      "num_fans",
                                          "fan_speed",     "utilization.gpu",  "utilization.memory",
                                          "power",         "energy",           "enforced_limit",
                                          "default_limit", "power_limit",      "limit_min",
                                          "limit_max",     "pstate",           "throttle",
                                          "processes",     "process_sizing",   "process_count",
                                          "vbios_version"};
static const char* const kIndexedDeviceKeys[] = {
    "threshold.", "fan.", "fan_rpm.", "max_clock.", "clock.", "boost_clock.", "pcie."};
static const char* const kLibraryKeys[] = {"init", "count", "nvml_version", "driver_version"};

static int in_list(const char* key, const char* const* list, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (strcmp(key, list[i]) == 0) return 1;
  }
  return 0;
}

static int all_digits(const char* s) {
  if (*s == '\0') return 0;
  for (; *s != '\0'; ++s) {
    if (*s < '0' || *s > '9') return 0;
  }
  return 1;
}

static int is_device_key(const char* key) {
  if (in_list(key, kDeviceKeys, sizeof kDeviceKeys / sizeof kDeviceKeys[0])) return 1;
  for (size_t i = 0; i < sizeof kIndexedDeviceKeys / sizeof kIndexedDeviceKeys[0]; ++i) {
    size_t n = strlen(kIndexedDeviceKeys[i]);
    if (strncmp(key, kIndexedDeviceKeys[i], n) == 0 && all_digits(key + n)) return 1;
  }
  return 0;
}

static int is_library_key(const char* key) {
  if (in_list(key, kLibraryKeys, sizeof kLibraryKeys / sizeof kLibraryKeys[0])) return 1;
  return strncmp(key, "process_name.", 13) == 0 && all_digits(key + 13);
}

static int is_text_key(const char* key) {
  return in_list(key, kTextKeys, sizeof kTextKeys / sizeof kTextKeys[0]) ||
         strncmp(key, "process_name.", 13) == 0;
}

static Entry* find_entry(Scope* scope, const char* key) {
  for (int i = 0; i < scope->nentries; ++i) {
    if (strcmp(scope->entries[i].key, key) == 0) return &scope->entries[i];
  }
  return NULL;
}

static int set_entry(Scope* scope, const char* key, const char* rest) {
  Entry* e = find_entry(scope, key);
  if (e == NULL) {
    if (scope->nentries == MAX_ENTRIES) return 0;
    e = &scope->entries[scope->nentries++];
  }
  memset(e, 0, sizeof *e);
  fake_copy(e->key, sizeof e->key, key);
  fake_copy(e->text, sizeof e->text, rest);
  if (is_text_key(key)) return 1;
  const char* p = rest;
  while (*p != '\0') {
    char* end = NULL;
    errno = 0;
    unsigned long long v = strtoull(p, &end, 0);
    if (end == p || errno != 0 || (*end != '\0' && *end != ' ' && *end != '\t')) return 0;
    if (e->nvalues == MAX_VALUES) return 0;
    e->values[e->nvalues++] = v;
    p = end;
    while (*p == ' ' || *p == '\t') ++p;
  }
  return e->nvalues > 0;
}

static int add_failure(Scope* scope, const char* rest) {
  if (scope->nfails == MAX_FAILS) return 0;
  Failure* f = &scope->fails[scope->nfails];
  memset(f, 0, sizeof *f);
  char from_word[16] = "";
  unsigned long from = 1;
  int fields = sscanf(rest, "%95s %d %15s %lu", f->call, &f->code, from_word, &from);
  if (fields != 2 && !(fields == 4 && strcmp(from_word, "from") == 0)) return 0;
  if (from == 0) from = 1;
  f->from = from;
  ++scope->nfails;
  return 1;
}

static void config_error(const char* path, int line, const char* what) {
  fprintf(stderr, "fake nvml: %s line %d: %s\n", path, line, what);
  g_init_code = NVML_ERROR_UNKNOWN;
}

static void config_path(char* path, size_t size) {
  const char* env = getenv("ZEV_FAKE_NVML_CONF");
  if (env != NULL && *env != '\0') {
    fake_copy(path, size, env);
    return;
  }
  Dl_info info;
  memset(&info, 0, sizeof info);
  if (dladdr((void*)&config_path, &info) == 0 || info.dli_fname == NULL) {
    path[0] = '\0';
    return;
  }
  char self[4096];
  fake_copy(self, sizeof self, info.dli_fname);
  fake_dirname(self, 2); /* <machine>/lib/libnvidia-ml.so.1 -> <machine> */
  snprintf(path, size, "%s/nvidia/nvml.conf", self);
}

/* Reads the machine's data afresh; every value and counter starts over. */
static void load_config(void) {
  memset(&g_library, 0, sizeof g_library);
  memset(g_devices, 0, sizeof g_devices);
  g_count = 0;
  g_init_code = NVML_SUCCESS;

  char path[4096];
  config_path(path, sizeof path);
  char* text = path[0] != '\0' ? fake_read_file(path) : NULL;
  if (text == NULL) {
    g_init_code = NVML_ERROR_DRIVER_NOT_LOADED; /* no driver on this machine */
    return;
  }

  int first = -1, last = -1; /* device range of the current section; -1: library */
  int highest = -1;
  int count_given = 0;
  char* cursor = text;
  int number = 0;
  for (char* line; (line = fake_next_line(&cursor)) != NULL;) {
    ++number;
    if (*line == '\0' || *line == '#') continue;
    char* rest = NULL;
    char* key = fake_split_key(line, &rest);

    if (strcmp(key, "device") == 0) {
      int a = -1, b = -1;
      int fields = sscanf(rest, "%d-%d", &a, &b);
      if (fields == 1) b = a;
      if (fields < 1 || a < 0 || b < a || b >= MAX_DEVICES) {
        config_error(path, number, "bad device line");
        break;
      }
      first = a;
      last = b;
      if (b > highest) highest = b;
      continue;
    }

    if (strcmp(key, "fail") == 0) {
      int ok = 1;
      if (first < 0) {
        ok = add_failure(&g_library, rest);
      } else {
        for (int d = first; d <= last && ok; ++d) ok = add_failure(&g_devices[d], rest);
      }
      if (!ok) {
        config_error(path, number, "bad fail line (fail <call>[.<arg>] <code> [from <n>])");
        break;
      }
      continue;
    }

    const int library_ok = first < 0 && (is_library_key(key) || is_device_key(key));
    const int device_ok = first >= 0 && is_device_key(key);
    if (!library_ok && !device_ok) {
      char what[160];
      snprintf(what, sizeof what, "unknown key \"%s\"", key);
      config_error(path, number, what);
      break;
    }
    int ok = 1;
    if (first < 0) {
      ok = set_entry(&g_library, key, rest);
    } else {
      for (int d = first; d <= last && ok; ++d) ok = set_entry(&g_devices[d], key, rest);
    }
    if (!ok) {
      char what[160];
      snprintf(what, sizeof what, "bad value for \"%s\"", key);
      config_error(path, number, what);
      break;
    }
    if (strcmp(key, "count") == 0) count_given = 1;
  }
  free(text);

  Entry* e = find_entry(&g_library, "init");
  if (g_init_code == NVML_SUCCESS && e != NULL) g_init_code = (int)e->values[0];
  e = find_entry(&g_library, "count");
  g_count = count_given && e != NULL ? (unsigned int)e->values[0] : (unsigned int)(highest + 1);
  if (g_count > MAX_DEVICES) g_count = MAX_DEVICES;
}

/* A device value (the device's own, else the library default), taken in turn
 * when the key holds a list. */
static int take_value(Scope* device, const char* key, unsigned long long* out) {
  Entry* e = device != NULL ? find_entry(device, key) : NULL;
  if (e == NULL) e = find_entry(&g_library, key);
  if (e == NULL || e->nvalues == 0) return 0;
  *out = e->values[e->cursor];
  e->cursor = (e->cursor + 1) % e->nvalues;
  return 1;
}

static const char* take_text(Scope* device, const char* key) {
  Entry* e = device != NULL ? find_entry(device, key) : NULL;
  if (e == NULL) e = find_entry(&g_library, key);
  return e != NULL ? e->text : NULL;
}

static int indexed_value(Scope* device, const char* prefix, long arg, unsigned long long* out) {
  char key[64];
  snprintf(key, sizeof key, "%s.%ld", prefix, arg);
  return take_value(device, key, out);
}

/* The failure configured for this call, or 0. */
static int failure_in(Scope* scope, const char* call, long arg) {
  char with_arg[128];
  snprintf(with_arg, sizeof with_arg, "%s.%ld", call, arg);
  for (int i = 0; i < scope->nfails; ++i) {
    Failure* f = &scope->fails[i];
    if (strcmp(f->call, call) != 0 && (arg < 0 || strcmp(f->call, with_arg) != 0)) continue;
    ++f->seen;
    if (f->seen >= f->from) return f->code;
  }
  return 0;
}

static int failure_of(Scope* device, const char* call, long arg) {
  int code = device != NULL ? failure_in(device, call, arg) : 0;
  if (code == 0) code = failure_in(&g_library, call, arg);
  return code;
}

static Scope* device_of(nvmlDevice_t handle) {
  for (unsigned int i = 0; i < g_count; ++i) {
    if (handle == (nvmlDevice_t)&g_devices[i]) return &g_devices[i];
  }
  return NULL;
}

#define BEGIN(name)            \
  const char* call_ = name;    \
  pthread_mutex_lock(&g_lock); \
  count_call(call_)

#define END(rc)                    \
  do {                             \
    nvmlReturn_t rc_ = (rc);       \
    pthread_mutex_unlock(&g_lock); \
    return rc_;                    \
  } while (0)

/* Started library, valid handle, no configured failure. */
#define DEVICE(handle, arg)                        \
  if (!g_started) END(NVML_ERROR_UNINITIALIZED);   \
  Scope* d = device_of(handle);                    \
  if (d == NULL) END(NVML_ERROR_INVALID_ARGUMENT); \
  (void)d;                                         \
  {                                                \
    int code_ = failure_of(d, call_, (arg));       \
    if (code_ != 0) END(code_);                    \
  }

#define LIBRARY(arg)                             \
  if (!g_started) END(NVML_ERROR_UNINITIALIZED); \
  {                                              \
    int code_ = failure_of(NULL, call_, (arg));  \
    if (code_ != 0) END(code_);                  \
  }

static nvmlReturn_t put_uint(Scope* d, const char* key, unsigned int* out) {
  unsigned long long v = 0;
  if (out == NULL) return NVML_ERROR_INVALID_ARGUMENT;
  if (!take_value(d, key, &v)) return NVML_ERROR_NOT_SUPPORTED;
  unsigned int u = (unsigned int)v;
  memcpy(out, &u, sizeof u);
  return NVML_SUCCESS;
}

static nvmlReturn_t put_text(const char* text, char* out, unsigned int length) {
  if (text == NULL) return NVML_ERROR_NOT_SUPPORTED;
  if (out == NULL) return NVML_ERROR_INVALID_ARGUMENT;
  size_t n = strlen(text);
  if (n >= length) return NVML_ERROR_INSUFFICIENT_SIZE;
  memcpy(out, text, n + 1);
  return NVML_SUCCESS;
}

/* ------------------------------------------------------------- start, stop */

static nvmlReturn_t start(const char* name) {
  BEGIN(name);
  if (!g_started) load_config();
  if (g_init_code != NVML_SUCCESS) END(g_init_code);
  int code = failure_of(NULL, call_, -1);
  if (code != 0) END(code);
  ++g_started;
  END(NVML_SUCCESS);
}

nvmlReturn_t nvmlInit(void) { return start("nvmlInit"); }
nvmlReturn_t nvmlInit_v2(void) { return start("nvmlInit_v2"); }

nvmlReturn_t nvmlShutdown(void) {
  BEGIN("nvmlShutdown");
  if (!g_started) END(NVML_ERROR_UNINITIALIZED);
  --g_started;
  END(NVML_SUCCESS);
}

/* ------------------------------------------------------------------ system */

nvmlReturn_t nvmlSystemGetNVMLVersion(char* version, unsigned int length) {
  BEGIN("nvmlSystemGetNVMLVersion");
  LIBRARY(-1);
  const char* text = take_text(NULL, "nvml_version");
  END(put_text(text != NULL ? text : "12.0", version, length));
}

nvmlReturn_t nvmlSystemGetDriverVersion(char* version, unsigned int length) {
  BEGIN("nvmlSystemGetDriverVersion");
  LIBRARY(-1);
  const char* text = take_text(NULL, "driver_version");
  END(put_text(text != NULL ? text : "550.00", version, length));
}

nvmlReturn_t nvmlSystemGetProcessName(unsigned int pid, char* name, unsigned int length) {
  BEGIN("nvmlSystemGetProcessName");
  LIBRARY((long)pid);
  char key[64];
  snprintf(key, sizeof key, "process_name.%u", pid);
  const char* text = take_text(NULL, key);
  END(text == NULL ? NVML_ERROR_NOT_FOUND : put_text(text, name, length));
}

static nvmlReturn_t get_count(const char* name, unsigned int* count) {
  BEGIN(name);
  LIBRARY(-1);
  if (count == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  memcpy(count, &g_count, sizeof g_count);
  END(NVML_SUCCESS);
}

nvmlReturn_t nvmlDeviceGetCount(unsigned int* count) {
  return get_count("nvmlDeviceGetCount", count);
}
nvmlReturn_t nvmlDeviceGetCount_v2(unsigned int* count) {
  return get_count("nvmlDeviceGetCount_v2", count);
}

nvmlReturn_t nvmlDeviceGetHandleByIndex(unsigned int index, nvmlDevice_t* device) {
  BEGIN("nvmlDeviceGetHandleByIndex");
  LIBRARY((long)index);
  if (device == NULL || index >= g_count) END(NVML_ERROR_INVALID_ARGUMENT);
  nvmlDevice_t handle = (nvmlDevice_t)&g_devices[index];
  memcpy(device, &handle, sizeof handle);
  END(NVML_SUCCESS);
}

/* ---------------------------------------------------------------- identity */

nvmlReturn_t nvmlDeviceGetName(nvmlDevice_t device, char* name, unsigned int length) {
  BEGIN("nvmlDeviceGetName");
  DEVICE(device, -1);
  END(put_text(take_text(d, "name"), name, length));
}

nvmlReturn_t nvmlDeviceGetSerial(nvmlDevice_t device, char* serial, unsigned int length) {
  BEGIN("nvmlDeviceGetSerial");
  DEVICE(device, -1);
  END(put_text(take_text(d, "serial"), serial, length));
}

nvmlReturn_t nvmlDeviceGetVbiosVersion(nvmlDevice_t device, char* version, unsigned int length) {
  BEGIN("nvmlDeviceGetVbiosVersion");
  DEVICE(device, -1);
  END(put_text(take_text(d, "vbios_version"), version, length));
}

nvmlReturn_t nvmlDeviceGetBrand(nvmlDevice_t device, unsigned int* brand) {
  BEGIN("nvmlDeviceGetBrand");
  DEVICE(device, -1);
  END(put_uint(d, "brand", brand));
}

nvmlReturn_t nvmlDeviceGetPciInfo(nvmlDevice_t device, nvmlPciInfo_t* pci) {
  BEGIN("nvmlDeviceGetPciInfo");
  DEVICE(device, -1);
  if (pci == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long id = 0, sub = 0, domain = 0, bus = 0, dev = 0;
  if (!take_value(d, "pci_device_id", &id)) END(NVML_ERROR_NOT_SUPPORTED);
  take_value(d, "pci_subsystem_id", &sub);
  take_value(d, "pci_domain", &domain);
  take_value(d, "pci_bus", &bus);
  take_value(d, "pci_device", &dev);
  nvmlPciInfo_t info;
  memset(&info, 0, sizeof info);
  snprintf(info.busId, sizeof info.busId, "%04llX:%02llX:%02llX.0", domain & 0xFFFFull, bus & 0xFF,
           dev & 0xFF);
  info.domain = (unsigned int)domain;
  info.bus = (unsigned int)bus;
  info.device = (unsigned int)dev;
  info.pciDeviceId = (unsigned int)id;
  info.pciSubSystemId = (unsigned int)sub;
  memcpy(pci, &info, sizeof info);
  END(NVML_SUCCESS);
}

nvmlReturn_t nvmlDeviceGetArchitecture(nvmlDevice_t device, unsigned int* architecture) {
  BEGIN("nvmlDeviceGetArchitecture");
  DEVICE(device, -1);
  END(put_uint(d, "architecture", architecture));
}

nvmlReturn_t nvmlDeviceGetNumGpuCores(nvmlDevice_t device, unsigned int* cores) {
  BEGIN("nvmlDeviceGetNumGpuCores");
  DEVICE(device, -1);
  END(put_uint(d, "cores", cores));
}

nvmlReturn_t nvmlDeviceGetMemoryBusWidth(nvmlDevice_t device, unsigned int* width) {
  BEGIN("nvmlDeviceGetMemoryBusWidth");
  DEVICE(device, -1);
  END(put_uint(d, "memory_bus_width", width));
}

nvmlReturn_t nvmlDeviceGetAttributes_v2(nvmlDevice_t device, nvmlDeviceAttributes_t* attributes) {
  BEGIN("nvmlDeviceGetAttributes_v2");
  DEVICE(device, -1);
  if (attributes == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long sms = 0, memory = 0;
  if (!take_value(d, "multiprocessors", &sms)) END(NVML_ERROR_NOT_SUPPORTED);
  take_value(d, "memory_total", &memory);
  nvmlDeviceAttributes_t a;
  memset(&a, 0, sizeof a);
  a.multiprocessorCount = (unsigned int)sms;
  a.memorySizeMB = memory;
  memcpy(attributes, &a, sizeof a);
  END(NVML_SUCCESS);
}

nvmlReturn_t nvmlDeviceGetMemoryInfo(nvmlDevice_t device, nvmlMemory_t* memory) {
  BEGIN("nvmlDeviceGetMemoryInfo");
  DEVICE(device, -1);
  if (memory == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long total = 0, used = 0;
  if (!take_value(d, "memory_total", &total)) END(NVML_ERROR_NOT_SUPPORTED);
  take_value(d, "memory_used", &used);
  nvmlMemory_t m = {total << 20, (total - used) << 20, used << 20};
  memcpy(memory, &m, sizeof m);
  END(NVML_SUCCESS);
}

nvmlReturn_t nvmlDeviceGetCudaComputeCapability(nvmlDevice_t device, int* major, int* minor) {
  BEGIN("nvmlDeviceGetCudaComputeCapability");
  DEVICE(device, -1);
  if (major == NULL || minor == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long a = 0, b = 0;
  if (!take_value(d, "cuda_major", &a) || !take_value(d, "cuda_minor", &b)) {
    END(NVML_ERROR_NOT_SUPPORTED);
  }
  int ia = (int)a, ib = (int)b;
  memcpy(major, &ia, sizeof ia);
  memcpy(minor, &ib, sizeof ib);
  END(NVML_SUCCESS);
}

static nvmlReturn_t no_processes(nvmlDevice_t device, const char* name, unsigned int* count,
                                 nvmlProcessInfo_t* infos) {
  BEGIN(name);
  DEVICE(device, -1);
  (void)infos;
  if (count == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned int zero = 0;
  memcpy(count, &zero, sizeof zero);
  END(NVML_SUCCESS);
}

nvmlReturn_t nvmlDeviceGetComputeRunningProcesses(nvmlDevice_t device, unsigned int* count,
                                                  nvmlProcessInfo_t* infos) {
  return no_processes(device, "nvmlDeviceGetComputeRunningProcesses", count, infos);
}

nvmlReturn_t nvmlDeviceGetGraphicsRunningProcesses(nvmlDevice_t device, unsigned int* count,
                                                   nvmlProcessInfo_t* infos) {
  return no_processes(device, "nvmlDeviceGetGraphicsRunningProcesses", count, infos);
}

nvmlReturn_t nvmlDeviceGetPlatformInfo(nvmlDevice_t device, void* info) {
  BEGIN("nvmlDeviceGetPlatformInfo");
  DEVICE(device, -1);
  (void)info;
  END(NVML_ERROR_NOT_SUPPORTED);
}

/* ------------------------------------------------------------- temperature */

nvmlReturn_t nvmlDeviceGetTemperature(nvmlDevice_t device, unsigned int sensor,
                                      unsigned int* celsius) {
  BEGIN("nvmlDeviceGetTemperature");
  DEVICE(device, (long)sensor);
  if (sensor != 0) END(NVML_ERROR_INVALID_ARGUMENT);
  END(put_uint(d, "temperature", celsius));
}

nvmlReturn_t nvmlDeviceGetTemperatureThreshold(nvmlDevice_t device, unsigned int type,
                                               unsigned int* celsius) {
  BEGIN("nvmlDeviceGetTemperatureThreshold");
  DEVICE(device, (long)type);
  if (celsius == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long v = 0;
  if (!indexed_value(d, "threshold", (long)type, &v)) END(NVML_ERROR_NOT_SUPPORTED);
  unsigned int u = (unsigned int)v;
  memcpy(celsius, &u, sizeof u);
  END(NVML_SUCCESS);
}

/* -------------------------------------------------------------------- fans */

static unsigned int fan_count(Scope* d) {
  Entry* e = find_entry(d, "num_fans");
  if (e == NULL) e = find_entry(&g_library, "num_fans");
  return e != NULL && e->nvalues > 0 ? (unsigned int)e->values[0] : 0;
}

nvmlReturn_t nvmlDeviceGetNumFans(nvmlDevice_t device, unsigned int* count) {
  BEGIN("nvmlDeviceGetNumFans");
  DEVICE(device, -1);
  END(put_uint(d, "num_fans", count));
}

nvmlReturn_t nvmlDeviceGetFanSpeed(nvmlDevice_t device, unsigned int* percent) {
  BEGIN("nvmlDeviceGetFanSpeed");
  DEVICE(device, -1);
  END(put_uint(d, "fan_speed", percent));
}

nvmlReturn_t nvmlDeviceGetFanSpeed_v2(nvmlDevice_t device, unsigned int fan,
                                      unsigned int* percent) {
  BEGIN("nvmlDeviceGetFanSpeed_v2");
  DEVICE(device, (long)fan);
  if (percent == NULL || fan >= fan_count(d)) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long v = 0;
  if (!indexed_value(d, "fan", (long)fan, &v)) END(NVML_ERROR_NOT_SUPPORTED);
  unsigned int u = (unsigned int)v;
  memcpy(percent, &u, sizeof u);
  END(NVML_SUCCESS);
}

/* The RPM of one fan; exported as the real libraries name it (driver 570 and
 * later) and under the _v2 name the monitor also looks up. */
static nvmlReturn_t fan_rpm(const char* name, nvmlDevice_t device, nvmlFanSpeedInfo_t* info) {
  BEGIN(name);
  if (info == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  nvmlFanSpeedInfo_t in;
  memcpy(&in, info, sizeof in);
  DEVICE(device, (long)in.fan);
  if (in.version != FAN_SPEED_INFO_VERSION) END(NVML_ERROR_ARGUMENT_VERSION_MISMATCH);
  if (in.fan >= fan_count(d)) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long v = 0;
  if (!indexed_value(d, "fan_rpm", (long)in.fan, &v)) END(NVML_ERROR_NOT_SUPPORTED);
  in.speed = (unsigned int)v;
  memcpy(info, &in, sizeof in);
  END(NVML_SUCCESS);
}

nvmlReturn_t nvmlDeviceGetFanSpeedRPM(nvmlDevice_t device, nvmlFanSpeedInfo_t* info) {
  return fan_rpm("nvmlDeviceGetFanSpeedRPM", device, info);
}

nvmlReturn_t nvmlDeviceGetFanSpeedRPM_v2(nvmlDevice_t device, nvmlFanSpeedInfo_t* info) {
  return fan_rpm("nvmlDeviceGetFanSpeedRPM_v2", device, info);
}

/* ------------------------------------------------------------------ clocks */

nvmlReturn_t nvmlDeviceGetMaxClockInfo(nvmlDevice_t device, unsigned int type, unsigned int* mhz) {
  BEGIN("nvmlDeviceGetMaxClockInfo");
  DEVICE(device, (long)type);
  if (mhz == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long v = 0;
  if (!indexed_value(d, "max_clock", (long)type, &v)) END(NVML_ERROR_NOT_SUPPORTED);
  unsigned int u = (unsigned int)v;
  memcpy(mhz, &u, sizeof u);
  END(NVML_SUCCESS);
}

nvmlReturn_t nvmlDeviceGetMaxCustomerBoostClock(nvmlDevice_t device, unsigned int type,
                                                unsigned int* mhz) {
  BEGIN("nvmlDeviceGetMaxCustomerBoostClock");
  DEVICE(device, (long)type);
  if (mhz == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long v = 0;
  if (!indexed_value(d, "boost_clock", (long)type, &v)) END(NVML_ERROR_NOT_SUPPORTED);
  unsigned int u = (unsigned int)v;
  memcpy(mhz, &u, sizeof u);
  END(NVML_SUCCESS);
}

nvmlReturn_t nvmlDeviceGetClock(nvmlDevice_t device, unsigned int type, unsigned int id,
                                unsigned int* mhz) {
  BEGIN("nvmlDeviceGetClock");
  DEVICE(device, (long)type);
  if (mhz == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  if (id != 0) END(NVML_ERROR_NOT_SUPPORTED); /* only the current clocks are known here */
  unsigned long long v = 0;
  if (!indexed_value(d, "clock", (long)type, &v)) END(NVML_ERROR_NOT_SUPPORTED);
  unsigned int u = (unsigned int)v;
  memcpy(mhz, &u, sizeof u);
  END(NVML_SUCCESS);
}

/* ------------------------------------------------------------- load, power */

nvmlReturn_t nvmlDeviceGetUtilizationRates(nvmlDevice_t device, nvmlUtilization_t* utilization) {
  BEGIN("nvmlDeviceGetUtilizationRates");
  DEVICE(device, -1);
  if (utilization == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long gpu = 0, memory = 0;
  if (!take_value(d, "utilization.gpu", &gpu) || !take_value(d, "utilization.memory", &memory)) {
    END(NVML_ERROR_NOT_SUPPORTED);
  }
  nvmlUtilization_t u = {(unsigned int)gpu, (unsigned int)memory};
  memcpy(utilization, &u, sizeof u);
  END(NVML_SUCCESS);
}

nvmlReturn_t nvmlDeviceGetPowerUsage(nvmlDevice_t device, unsigned int* milliwatts) {
  BEGIN("nvmlDeviceGetPowerUsage");
  DEVICE(device, -1);
  END(put_uint(d, "power", milliwatts));
}

nvmlReturn_t nvmlDeviceGetTotalEnergyConsumption(nvmlDevice_t device,
                                                 unsigned long long* millijoules) {
  BEGIN("nvmlDeviceGetTotalEnergyConsumption");
  DEVICE(device, -1);
  if (millijoules == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long v = 0;
  if (!take_value(d, "energy", &v)) END(NVML_ERROR_NOT_SUPPORTED);
  memcpy(millijoules, &v, sizeof v);
  END(NVML_SUCCESS);
}

nvmlReturn_t nvmlDeviceGetEnforcedPowerLimit(nvmlDevice_t device, unsigned int* milliwatts) {
  BEGIN("nvmlDeviceGetEnforcedPowerLimit");
  DEVICE(device, -1);
  END(put_uint(d, "enforced_limit", milliwatts));
}

nvmlReturn_t nvmlDeviceGetPowerManagementDefaultLimit(nvmlDevice_t device,
                                                      unsigned int* milliwatts) {
  BEGIN("nvmlDeviceGetPowerManagementDefaultLimit");
  DEVICE(device, -1);
  END(put_uint(d, "default_limit", milliwatts));
}

nvmlReturn_t nvmlDeviceGetPowerManagementLimit(nvmlDevice_t device, unsigned int* milliwatts) {
  BEGIN("nvmlDeviceGetPowerManagementLimit");
  DEVICE(device, -1);
  END(put_uint(d, "power_limit", milliwatts));
}

nvmlReturn_t nvmlDeviceGetPowerManagementLimitConstraints(nvmlDevice_t device,
                                                          unsigned int* min_milliwatts,
                                                          unsigned int* max_milliwatts) {
  BEGIN("nvmlDeviceGetPowerManagementLimitConstraints");
  DEVICE(device, -1);
  if (min_milliwatts == NULL || max_milliwatts == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long lo = 0, hi = 0;
  if (!take_value(d, "limit_min", &lo) || !take_value(d, "limit_max", &hi)) {
    END(NVML_ERROR_NOT_SUPPORTED);
  }
  unsigned int a = (unsigned int)lo, b = (unsigned int)hi;
  memcpy(min_milliwatts, &a, sizeof a);
  memcpy(max_milliwatts, &b, sizeof b);
  END(NVML_SUCCESS);
}

nvmlReturn_t nvmlDeviceGetPowerState(nvmlDevice_t device, unsigned int* state) {
  BEGIN("nvmlDeviceGetPowerState");
  DEVICE(device, -1);
  END(put_uint(d, "pstate", state));
}

nvmlReturn_t nvmlDeviceGetPcieThroughput(nvmlDevice_t device, unsigned int counter,
                                         unsigned int* value) {
  BEGIN("nvmlDeviceGetPcieThroughput");
  DEVICE(device, (long)counter);
  if (value == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long v = 0;
  if (!indexed_value(d, "pcie", (long)counter, &v)) END(NVML_ERROR_NOT_SUPPORTED);
  unsigned int u = (unsigned int)v;
  memcpy(value, &u, sizeof u);
  END(NVML_SUCCESS);
}

nvmlReturn_t nvmlDeviceGetCurrentClocksThrottleReasons(nvmlDevice_t device,
                                                       unsigned long long* reasons) {
  BEGIN("nvmlDeviceGetCurrentClocksThrottleReasons");
  DEVICE(device, -1);
  if (reasons == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  unsigned long long v = 0;
  if (!take_value(d, "throttle", &v)) END(NVML_ERROR_NOT_SUPPORTED);
  memcpy(reasons, &v, sizeof v);
  END(NVML_SUCCESS);
}

/* --------------------------------------------------------------- processes */

static unsigned int parse_samples(Scope* d, nvmlProcessUtilizationSample_t* out) {
  const char* text = take_text(d, "processes");
  if (text == NULL) return 0;
  unsigned int n = 0;
  const char* p = text;
  while (*p != '\0' && n < MAX_SAMPLES) {
    unsigned int pid = 0, sm = 0, mem = 0, enc = 0, dec = 0;
    unsigned long long ts = 0;
    int used = 0;
    if (sscanf(p, "%u:%llu:%u:%u:%u:%u%n", &pid, &ts, &sm, &mem, &enc, &dec, &used) != 6) break;
    memset(&out[n], 0, sizeof out[n]);
    out[n].pid = pid;
    out[n].timeStamp = ts;
    out[n].smUtil = sm;
    out[n].memUtil = mem;
    out[n].encUtil = enc;
    out[n].decUtil = dec;
    ++n;
    p += used;
    while (*p == ' ' || *p == '\t') ++p;
  }
  return n;
}

nvmlReturn_t nvmlDeviceGetProcessUtilization(nvmlDevice_t device,
                                             nvmlProcessUtilizationSample_t* samples,
                                             unsigned int* count, unsigned long long last_seen) {
  BEGIN("nvmlDeviceGetProcessUtilization");
  DEVICE(device, -1);
  (void)last_seen;
  if (count == NULL) END(NVML_ERROR_INVALID_ARGUMENT);
  nvmlProcessUtilizationSample_t parsed[MAX_SAMPLES];
  const unsigned int n = parse_samples(d, parsed);
  unsigned long long claimed_value = 0;
  const int lies = take_value(d, "process_count", &claimed_value);
  const unsigned int claimed = lies ? (unsigned int)claimed_value : n;
  if (samples == NULL) {
    memcpy(count, &claimed, sizeof claimed);
    unsigned long long code = 0;
    if (take_value(d, "process_sizing", &code)) END((nvmlReturn_t)code);
    END(n > 0 ? NVML_ERROR_INSUFFICIENT_SIZE : NVML_ERROR_NOT_FOUND);
  }
  unsigned int room = 0;
  memcpy(&room, count, sizeof room);
  if (room < n && !lies) {
    memcpy(count, &n, sizeof n);
    END(NVML_ERROR_INSUFFICIENT_SIZE);
  }
  /* Never more samples than the caller's buffer holds, whatever is claimed. */
  for (unsigned int k = 0; k < n && k < room; ++k) {
    memcpy(&samples[k], &parsed[k], sizeof parsed[k]);
  }
  memcpy(count, &claimed, sizeof claimed);
  END(n > 0 ? NVML_SUCCESS : NVML_ERROR_NOT_FOUND);
}
