// Threading helpers of the framework.
#pragma once

namespace zev {

// Suspends the calling thread for the given number of milliseconds.
void ThreadSleep(unsigned long milliseconds);

}  // namespace zev
