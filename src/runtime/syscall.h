// The few operating-system queries the parallel layers need.
#pragma once

#include <cstdint>

#include "runtime/env.h"

namespace vq_tl {

// Processors online, at least 1.
int32_t Syscall_getNumberOfProcessors();
// Pins the calling thread to the processors set in mask (bit i: processor i;
// only the first 32 can be named). TL_ERROR_SYSTEM when the system refuses,
// for example for a mask without any online processor.
TLResult Syscall_setThreadAffinityMask(Env* env, uint32_t mask);

}  // namespace vq_tl
