#include <gtest/gtest.h>

#include <cstring>

#include "runtime/thread.h"

using namespace vq_tl;

namespace {

// The argument carries the value to return and a place for the thread's id.
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

TEST(Thread, JoinReturnsTheFunctionsResult) {
    const uint32_t results[] = {0u, 1u, 0x10000u, TL_ERROR_PARAM, 0xFFFFFFFFu};
    for (const uint32_t expected : results) {
        Job job{expected, 0, 0};
        Thread thread;
        ASSERT_EQ(construct_Thread(&thread, nullptr), TL_OK);
        ASSERT_EQ(Thread_start(&thread, runJob, &job), TL_OK);
        EXPECT_NE(thread.join, nullptr);
        EXPECT_EQ(Thread_join(&thread), expected);
        EXPECT_EQ(thread.join, nullptr);
        EXPECT_EQ(job.runs, 1);
        EXPECT_NE(job.ranOn, Thread_getId());

        ASSERT_EQ(Thread_start(&thread, runJob, &job), TL_OK);
        uint32_t out = 0x12345678u;
        EXPECT_EQ(Thread_join2(&thread, &out), TL_OK);
        EXPECT_EQ(out, expected);
        EXPECT_EQ(job.runs, 2);
        EXPECT_EQ(thread.result, expected);
        // A second join of either form finds nothing to join.
        EXPECT_EQ(Thread_join(&thread), TL_OK);
        out = 0;
        EXPECT_EQ(Thread_join2(&thread, &out), TL_OK);
        EXPECT_EQ(out, expected);
        thread.result = 0;
        EXPECT_EQ(destruct_Thread(&thread), TL_OK);
    }
}

TEST(Thread, StartingTwiceWithoutJoinIsRefused) {
    Job job{5, 0, 0};
    Job other{6, 0, 0};
    Thread thread;
    construct_Thread(&thread, nullptr);
    ASSERT_EQ(Thread_start(&thread, runJob, &job), TL_OK);
    EXPECT_EQ(Thread_start(&thread, runJob, &other), TL_ERROR_STATE);
    EXPECT_EQ(Thread_join(&thread), 5u);
    EXPECT_EQ(other.runs, 0);
    EXPECT_EQ(Thread_start(&thread, runJob, &other), TL_OK);
    EXPECT_EQ(Thread_join(&thread), 6u);
    thread.result = 0;
    EXPECT_EQ(destruct_Thread(&thread), TL_OK);
}

TEST(Thread, BadArgumentsAndNeverStarted) {
    Thread thread;
    uint32_t out = 9;
    EXPECT_EQ(construct_Thread(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_Thread(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Thread_start(nullptr, runJob, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Thread_join(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Thread_join2(nullptr, &out), TL_ERROR_PARAM);
    ASSERT_EQ(construct_Thread(&thread, nullptr), TL_OK);
    EXPECT_EQ(Thread_start(&thread, nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(thread.join, nullptr);
    EXPECT_EQ(Thread_join(&thread), TL_OK);
    EXPECT_EQ(Thread_join2(&thread, &out), TL_OK);
    EXPECT_EQ(out, 0u);
    EXPECT_EQ(Thread_join2(&thread, nullptr), TL_OK);
    EXPECT_EQ(destruct_Thread(&thread), TL_OK);
    EXPECT_EQ(destruct_Thread(&thread), TL_OK);
    EXPECT_EQ(Thread_getBufferSize(), 0);
}

TEST(Thread, DestructKeepsARecordWhoseThreadFailedThenLetsGo) {
    Job job{TL_ERROR_MEMORY, 0, 0};
    Env env{};
    Thread thread;
    construct_Thread(&thread, &env);
    ASSERT_EQ(Thread_start(&thread, runJob, &job), TL_OK);
    // The thread's failure comes back and the record stays readable.
    EXPECT_EQ(destruct_Thread(&thread), TL_ERROR_MEMORY);
    EXPECT_EQ(thread.env, &env);
    EXPECT_EQ(thread.result, TL_ERROR_MEMORY);
    EXPECT_EQ(thread.join, nullptr);
    // Already joined now: the second destruct clears it.
    EXPECT_EQ(destruct_Thread(&thread), TL_OK);
    Thread zero;
    std::memset(&zero, 0, sizeof zero);
    EXPECT_EQ(std::memcmp(&thread, &zero, sizeof zero), 0);
}
