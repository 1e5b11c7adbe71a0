// Processor count, thread affinity and the monotonic tick through the system.
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <thread>

#include "runtime/env.h"
#include "runtime/syscall.h"

using namespace vq_tl;

TEST(Syscall, NumberOfProcessorsIsTheOnlineCount) {
    const int32_t n = Syscall_getNumberOfProcessors();
    EXPECT_GE(n, 1);
    EXPECT_TRUE(sysconf(_SC_NPROCESSORS_ONLN) < 1 || n == sysconf(_SC_NPROCESSORS_ONLN));
}

TEST(Env, TickNeverGoesBackwards) {
    Env env{};
    uint64_t last = 1;  // a failing clock reads 0
    for (int i = 0; i < 100000; ++i) {
        const uint64_t now = Env_getTick(&env);
        ASSERT_GE(now, last);
        last = now;
    }
}

#if defined(__linux__)
TEST(Syscall, AffinityPinsTheCallingThreadOnly) {
    // On a thread of its own, so that the test program's main thread keeps its processors.
    std::thread worker([] {
        Env env{};
        cpu_set_t allowed;
        CPU_ZERO(&allowed);
        ASSERT_EQ(sched_getaffinity(0, sizeof(allowed), &allowed), 0);
        int cpu = -1;
        for (int i = 0; i < 32 && cpu < 0; ++i) {
            if (CPU_ISSET(i, &allowed)) cpu = i;
        }
        if (cpu < 0) GTEST_SKIP() << "no allowed processor among the first 32";
        EXPECT_EQ(Syscall_setThreadAffinityMask(&env, 1u << cpu), TL_OK);
        cpu_set_t now;
        CPU_ZERO(&now);
        ASSERT_EQ(sched_getaffinity(0, sizeof(now), &now), 0);
        EXPECT_EQ(CPU_COUNT(&now), 1);
        EXPECT_TRUE(CPU_ISSET(cpu, &now));
        // An empty mask names no processor: the system refuses it and nothing changes.
        EXPECT_EQ(Syscall_setThreadAffinityMask(&env, 0), TL_ERROR_SYSTEM);
        ASSERT_EQ(sched_getaffinity(0, sizeof(now), &now), 0);
        EXPECT_TRUE(CPU_ISSET(cpu, &now));
    });
    worker.join();
}
#endif
