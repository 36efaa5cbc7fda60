/* A stand-in for NVIDIA's CUDA driver library. The monitor only checks that
 * "libcuda.so" can be loaded; cuInit answers "no device" for any caller. */
int cuInit(unsigned int flags) {
  (void)flags;
  return 100; /* CUDA_ERROR_NO_DEVICE */
}
