// ParallelExecutor: fork and join of independent tasks with copied
// arguments, or one function over indices 0..n-1. Two engines behind one
// interface: with a Pel (set in `pel` before init) everything is forwarded to
// it; without one the executor runs a pool of its own, fed by two blocking
// queues (tasks to run, tasks that ran).
//
// Threads: init, recycle, destruct, join, execute and shutdown belong to the
// owner, and one execute runs at a time. In the Pel engine fork may be called
// from several threads at once; join must then run alone. Tasks may not fork
// into the executor that runs them. A null executor is legal for fork, join
// and execute: the work runs on the calling thread.
#pragma once

#include <cstdint>

#include "runtime/env.h"
#include "runtime/linked_blocking_queue.h"
#include "runtime/pel.h"
#include "runtime/thread.h"

namespace vq_tl {

// A forked task: gets its copy of the arguments, returns a result code.
using ParallelExecutorFunction = uint32_t (*)(void* arguments);
// A share of execute: index in 0..count-1.
using ParallelExecutorIndexFunction = uint32_t (*)(void* arg, int32_t index, int32_t count);

// A task of the pool engine, one malloc block: this header, then the copy of
// the arguments at an offset aligned for any type.
struct ParallelExecutorTask {
    uint32_t result;
    ParallelExecutorFunction function;
    void* arguments;  // the copy after the header, or the caller's pointer for a size of 0
};

// A forked task of the Pel engine: the function and the copy of its arguments.
struct ParallelExecutorPelTask {
    ParallelExecutorFunction function;  // null: the place holds no task
    void* arguments;
    void* copy;  // owned, from malloc; null for a size of 0
};

// One malloc block: this header, then `capacity` tasks, then `capacity` events.
struct ParallelExecutorPelTasks {
    Pel* pel;
    int32_t capacity;   // twice the queue capacity given to init
    int32_t forkCount;  // places claimed; atomic
    ParallelExecutorPelTask* tasks;
    uint32_t* events;
};

struct ParallelExecutor {
    Env* env;
    // Settings, kept across init and recycle.
    int32_t numberOfThreads;  // pool size; negative: the processors, minus 1 if the caller works
    int32_t callerWorks;      // non-zero: the thread in join and execute runs tasks too
    int32_t setAffinity;      // non-zero: pool threads (and a working caller) take masks
    uint32_t affinityMask;    // processors for the threads; 0: none given
    uint32_t restoreMask;     // the working caller's mask afterwards; 0: all ones
    Pel* pel;                 // non-null selects the Pel engine
    // State.
    int32_t shuttingDown;    // fenced; non-zero refuses new work
    int32_t maxThreads;      // size of the thread table
    int32_t runningThreads;  // threads started so far
    int32_t liveThreads;     // atomic: threads inside their loop, plus 1 if the caller works
    int32_t taskCount;       // atomic: tasks forked and not yet joined
    LinkedBlockingQueue waitingQueue;
    LinkedBlockingQueue finishedQueue;
    Thread* threads;  // owned, maxThreads records
    uint8_t cpus[32];
    int32_t cpuCount;
    uint32_t executeResult;  // atomic
    ParallelExecutorIndexFunction executeFunction;
    void* executeArg;
    int32_t executeIndex;  // atomic: the next index of the running execute
    int32_t executeCount;
    ParallelExecutorPelTasks* pelTasks;  // owned; the Pel engine only
};

// -1 for maxThreads below 1, a bad queueCapacity, negative sizes or a sum
// beyond 31 bits.
int32_t ParallelExecutor_getBufferSize(int32_t maxThreads, int32_t queueCapacity, int32_t argumentSize,
                                       int32_t maxTasks);
TLResult construct_ParallelExecutor(ParallelExecutor* self, Env* env);
// Shuts down, joins the tasks and the threads, frees; TL_ERROR_STATE when
// something was left over.
TLResult destruct_ParallelExecutor(ParallelExecutor* self);
TLResult ParallelExecutor_recycle(ParallelExecutor* self);
// Pool engine: a table of maxThreads threads, both queues of queueCapacity,
// and the threads of the target started. Pel engine: room for twice
// queueCapacity forks between joins, and no thread. TL_ERROR_PARAM for sizes
// below 1, and when numberOfThreads and callerWorks are both 0.
TLResult ParallelExecutor_init(ParallelExecutor* self, int32_t maxThreads, int32_t queueCapacity);

// Copies size bytes of arguments and queues function on them. A null self
// runs function(arguments) at once and returns its result. TL_ERROR_PARAM for
// a null function, or null arguments with a non-zero size; TL_MARK_CANCELLED
// after shutdown; TL_ERROR_STATE when the queue (or the Pel engine's table
// of places) is full; TL_ERROR_MEMORY when the copy cannot be allocated.
TLResult ParallelExecutor_fork(ParallelExecutor* self, ParallelExecutorFunction function,
                               const void* arguments, int32_t size);
// Waits for every forked task; the wait's code or'ed with the or of their
// results. On the Pel engine a wait that runs out waits on for the tasks to
// end and then answers TL_ERROR_TIMEOUT, as execute does.
TLResult ParallelExecutor_join(ParallelExecutor* self);
// The same, with the or of the results going to resultOut (optional).
TLResult ParallelExecutor_join2(ParallelExecutor* self, uint32_t* resultOut);
// function(arg, index, count) for every index; count below 1 means one share
// per worker. resultOut (optional) gets the or of the results.
TLResult ParallelExecutor_execute(ParallelExecutor* self, ParallelExecutorIndexFunction function, void* arg,
                                  int32_t count, uint32_t* resultOut);
// Refuses new work; waiting tasks are marked TL_MARK_CANCELLED and moved to
// the finished queue unrun. TL_ERROR_STATE when the finished queue is full.
TLResult ParallelExecutor_shutdown(ParallelExecutor* self);

// The task objects and queue view of the pool engine. On the Pel engine or
// an uninitialised executor they refuse: null, -1, 0 or TL_ERROR_UNSUPPORTED.
ParallelExecutorTask* ParallelExecutor_newTask(ParallelExecutor* self, ParallelExecutorFunction function,
                                               const void* arguments, int32_t size);
// Room for size bytes of arguments, to be filled through task->arguments.
ParallelExecutorTask* ParallelExecutor_newTask_v1(ParallelExecutor* self, ParallelExecutorFunction function,
                                                  int32_t size);
TLResult ParallelExecutor_fork_v1(ParallelExecutor* self, ParallelExecutorTask* task);
TLResult ParallelExecutor_deleteTask(ParallelExecutor* self, ParallelExecutorTask* task);
// Into the waiting queue, as LinkedBlockingQueue_put, offer and offerMillis: 1 or 0.
int32_t ParallelExecutor_put(ParallelExecutor* self, ParallelExecutorTask* task);
int32_t ParallelExecutor_offer(ParallelExecutor* self, ParallelExecutorTask* task);
int32_t ParallelExecutor_offerMillis(ParallelExecutor* self, ParallelExecutorTask* task, int32_t millis);
// From the finished queue, as LinkedBlockingQueue_take, poll and pollMillis.
ParallelExecutorTask* ParallelExecutor_take(ParallelExecutor* self);
ParallelExecutorTask* ParallelExecutor_poll(ParallelExecutor* self);
ParallelExecutorTask* ParallelExecutor_pollMillis(ParallelExecutor* self, int32_t millis);
int32_t ParallelExecutor_getNumberOfTasks(const ParallelExecutor* self);
int32_t ParallelExecutor_getNumberOfWaitingTasks(const ParallelExecutor* self);
int32_t ParallelExecutor_getNumberOfFinishedTasks(const ParallelExecutor* self);

}  // namespace vq_tl
