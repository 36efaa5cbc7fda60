#include "zev/thread.h"

#include <cerrno>
#include <ctime>

namespace zev {

void ThreadSleep(unsigned long milliseconds) {
  struct timespec remaining;
  remaining.tv_sec = static_cast<time_t>(milliseconds / 1000);
  remaining.tv_nsec = static_cast<long>((milliseconds % 1000) * 1000000L);
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

}  // namespace zev
