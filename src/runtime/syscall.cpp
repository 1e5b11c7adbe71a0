#include "runtime/syscall.h"

#include <unistd.h>
#if defined(__linux__)
#include <sys/syscall.h>
#endif

namespace vq_tl {

int32_t Syscall_getNumberOfProcessors() {
    const long n = sysconf(_SC_NPROCESSORS_ONLN);
    if (n < 1) return 1;
    return n > INT32_MAX ? INT32_MAX : static_cast<int32_t>(n);
}

TLResult Syscall_setThreadAffinityMask(Env* env, uint32_t mask) {
    (void)env;
#if defined(__linux__)
    // The raw system call with a 4-byte mask: the C library's wrapper wants a
    // cpu_set_t, and Android's older headers lack it. Thread id 0 is the caller.
    if (syscall(SYS_sched_setaffinity, 0, sizeof(mask), &mask) != 0) return TL_ERROR_SYSTEM;
    return TL_OK;
#else
    (void)mask;
    return TL_ERROR_SYSTEM;  // no per-thread affinity on this system
#endif
}

}  // namespace vq_tl
