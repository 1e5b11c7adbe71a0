#include <gtest/gtest.h>

#include "runtime/thread.h"

using namespace vq_tl;

namespace {

// The argument carries the value to return; the thread notes where it ran.
struct Job {
    uint32_t toReturn;
    uintptr_t ranOn;
    int runs;
};

uint32_t runJob(void* argument) {
    Job* job = static_cast<Job*>(argument);
    job->ranOn = Thread_getId();
    job->runs += 1;
    return job->toReturn;
}

}  // namespace

// Both joins and destruct hand back what the function returned, on another
// thread; a second join, and a join of a thread never started, find nothing.
TEST(Thread, JoinAndDestructReturnTheFunctionsResult) {
    for (const uint32_t expected : {0u, 1u, 0x10000u, 0xFFFFFFFFu}) {
        Job job{expected, 0, 0}, other{6, 0, 0};
        Thread thread;
        ASSERT_EQ(construct_Thread(&thread, nullptr), TL_OK);
        uint32_t out = 9;
        EXPECT_EQ(Thread_join2(&thread, &out), TL_OK);
        EXPECT_EQ(out, 0u);
        ASSERT_EQ(Thread_start(&thread, runJob, &job), TL_OK);
        EXPECT_EQ(Thread_start(&thread, runJob, &other), TL_ERROR_STATE);
        EXPECT_EQ(Thread_join(&thread), expected);
        EXPECT_NE(job.ranOn, Thread_getId());
        ASSERT_EQ(Thread_start(&thread, runJob, &job), TL_OK);
        EXPECT_EQ(Thread_join2(&thread, &out) | Thread_join(&thread), TL_OK);
        EXPECT_EQ(out, expected);
        ASSERT_EQ(Thread_start(&thread, runJob, &job), TL_OK);
        EXPECT_EQ(destruct_Thread(&thread), expected);
        EXPECT_EQ(destruct_Thread(&thread), TL_OK);
        EXPECT_EQ(job.runs + other.runs, 3);
    }
}
