// The ROP count as the NVIDIA kernel driver knows it, asked through the
// driver's resource-manager interface on its device files, without NVML.
//
// Sequence: open the control device, allocate a client, open the GPU's
// device file and register the control descriptor with it, allocate the
// device and sub-device objects, then run the ROP query on the sub-device.
// The driver frees the objects with the client when the descriptors close.
// Only the success path closes them: a failing step returns its code and
// leaves open what it had opened.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "backends/nvidia/nvidia_backend.h"

namespace {

// _IOWR('F', nr, size) requests of the driver.
constexpr unsigned long kRequestRegisterFd = 0xC00446C9;  // nr 0xC9, 4 bytes
constexpr unsigned long kRequestAllocShort = 0xC020462B;  // nr 0x2B, 32 bytes
constexpr unsigned long kRequestAllocLong = 0xC030462B;   // nr 0x2B, 48 bytes
constexpr unsigned long kRequestControl = 0xC020462A;     // nr 0x2A, 32 bytes

constexpr uint32_t kClassRoot = 0x0;
constexpr uint32_t kClassDevice = 0x80;
constexpr uint32_t kClassSubdevice = 0x2080;
constexpr uint32_t kDeviceHandle = 0xB1000000;
constexpr uint32_t kSubdeviceHandle = 0xB2000000;
constexpr uint32_t kCommandGetRopInfo = 0x20801213;

// Allocation request, short form.
struct AllocShort {
  uint32_t root;
  uint32_t parent;
  uint32_t new_handle;  // in/out: 0 asks the driver to choose (the client handle)
  uint32_t object_class;
  uint64_t params;
  uint32_t params_size;
  uint32_t status;
};
static_assert(sizeof(AllocShort) == 32, "short allocation request is 32 bytes");
static_assert(offsetof(AllocShort, params) == 16 && offsetof(AllocShort, status) == 28,
              "short allocation request layout");

// Allocation request, long form.
struct AllocLong {
  uint32_t root;
  uint32_t parent;
  uint32_t new_handle;
  uint32_t object_class;
  uint64_t params;
  uint64_t rights;
  uint32_t params_size;
  uint32_t flags;
  uint32_t status;
  uint32_t reserved;
};
static_assert(sizeof(AllocLong) == 48, "long allocation request is 48 bytes");
static_assert(offsetof(AllocLong, rights) == 24 && offsetof(AllocLong, params_size) == 32 &&
                  offsetof(AllocLong, status) == 40,
              "long allocation request layout");

// Control request.
struct Control {
  uint32_t client;
  uint32_t object;
  uint32_t command;
  uint32_t flags;
  uint64_t params;
  uint32_t params_size;
  uint32_t status;
};
static_assert(sizeof(Control) == 32, "control request is 32 bytes");
static_assert(offsetof(Control, params) == 16 && offsetof(Control, status) == 28,
              "control request layout");

uint64_t user_address(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// Allocates object `handle` of `object_class` under `parent` in the client,
// with `params` as its allocation parameters (their size field is sent as 0).
bool allocate(int control_fd, uint32_t client, uint32_t parent, uint32_t handle,
              uint32_t object_class, void* params) {
  AllocLong request;
  std::memset(&request, 0, sizeof request);
  request.root = client;
  request.parent = parent;
  request.new_handle = handle;
  request.object_class = object_class;
  request.params = user_address(params);
  return ioctl(control_fd, kRequestAllocLong, &request) == 0 && request.status == 0;
}

}  // namespace

int nvidia_backend::read_rop_counter(unsigned long gpu_index, int* rops) {
  const int control_fd = openat(AT_FDCWD, "/dev/nvidiactl", O_RDWR);
  if (control_fd == -1) return -1;

  AllocShort client;
  std::memset(&client, 0, sizeof client);
  client.object_class = kClassRoot;
  if (ioctl(control_fd, kRequestAllocShort, &client) != 0) return -2;
  const uint32_t client_handle = client.new_handle;
  if (client.status != 0) return -2;

  char path[128];
  std::memset(path, 0, sizeof path);
  std::snprintf(path, sizeof path, "/dev/nvidia%d", static_cast<int>(gpu_index));
  const int device_fd = openat(AT_FDCWD, path, O_RDWR | O_CLOEXEC);
  if (device_fd == -1) return -3;
  int registered_fd = control_fd;
  if (ioctl(device_fd, kRequestRegisterFd, &registered_fd) != 0) return -3;

  // Device instance 0, whatever device file was opened above.
  uint8_t device_params[56];
  std::memset(device_params, 0, sizeof device_params);
  if (!allocate(control_fd, client_handle, client_handle, kDeviceHandle, kClassDevice,
                device_params)) {
    return -4;
  }
  // Sub-device 0.
  uint8_t subdevice_params[4];
  std::memset(subdevice_params, 0, sizeof subdevice_params);
  if (!allocate(control_fd, client_handle, kDeviceHandle, kSubdeviceHandle, kClassSubdevice,
                subdevice_params)) {
    return -5;
  }

  // Three words come back: ROP units, operations factor, and the ROP
  // operations per clock over all active units, which is the ROP count.
  uint32_t rop_info[3] = {0, 0, 0};
  Control query;
  std::memset(&query, 0, sizeof query);
  query.client = client_handle;
  query.object = kSubdeviceHandle;
  query.command = kCommandGetRopInfo;
  query.params = user_address(rop_info);
  query.params_size = sizeof rop_info;
  if (ioctl(control_fd, kRequestControl, &query) != 0 || query.status != 0) return -6;

  if (rops != nullptr) *rops = static_cast<int>(rop_info[2]);
  close(device_fd);
  close(control_fd);
  return 0;
}
