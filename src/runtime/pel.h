// Pel: the parallel execution layer. A fixed pool of worker threads runs
// data-parallel kernels (a global size of indices) and tasks, enqueued with
// dependencies on reference-counted events. Commands, dependency links and
// index ranges come from fixed tables inside the record, so nothing is
// allocated after Pel_init.
//
// Threads: Pel_init, Pel_recycle and destruct_Pel belong to the owner.
// Enqueue, wait, event and finish calls may come from any thread, kernels
// included: a kernel may call Pel_execute itself, and a thread that waits
// runs queued work instead of sleeping when it has a worker index.
#pragma once

#include <cstdint>

#include "runtime/condition.h"
#include "runtime/env.h"
#include "runtime/lock.h"
#include "runtime/syscall.h"
#include "runtime/thread.h"

namespace vq_tl {

struct Pel;

constexpr int32_t kPelMaxWorkers = 16;
constexpr int32_t kPelCommandCount = 256;  // slot of a command: its event id modulo 256
constexpr int32_t kPelLinkCount = 1024;
constexpr int32_t kPelRangeCount = 256;
constexpr int32_t kPelDefaultTimeoutMillis = 3000;

using PelWorkerCallback = void (*)(void* workerStartArg);

// The first ten words of a Pel; the owner writes them between construct_Pel
// and Pel_init. Pel_init takes a copy, so later changes wait for the next init.
struct PelParams {
    int32_t numberOfWorkers;     // including a participating caller; below 1: the processors online
    uint32_t affinityMask;       // processors allowed for workers, bit i processor i; 0: all
    uint32_t restoreMask;        // a helping caller's mask after a wait; 0: all ones
    int32_t callerParticipates;  // non-zero: the owner's thread is worker 0 and works while it waits
    int32_t pinWorkers;          // non-zero: worker i is pinned to one processor of the list
    int32_t dynamicBalance;      // non-zero: range splitting; zero: fixed shares
    int32_t timeoutMillis;       // longest wait for one completion by a thread that cannot help
    void* workerStartArg;
    // Run on each worker thread before and after its loop (thread priority,
    // thread names); they must not call into this Pel. Pel_init may return
    // before the last start callback has run.
    PelWorkerCallback workerStart;
    PelWorkerCallback workerEnd;
};

// Handed to every kernel call. On the serial path (no Pel) all is zero but count.
struct PelWorkInfo {
    Pel* pel;
    int32_t workerIndex;
    int32_t count;     // the global size; 0 for a task
    uint32_t eventId;  // the command's event id
};

// The bodies of the three kinds of kernels.
using PelTaskFunction = uint32_t (*)(void* arg, PelWorkInfo* info);
using PelIndexFunction = uint32_t (*)(void* arg, int32_t index, PelWorkInfo* info);
using PelRangeFunction = uint32_t (*)(void* arg, int32_t begin, int32_t end, PelWorkInfo* info);

// What workers call: claims indices from [*rangeStart, rangeEnd) by raising
// *rangeStart atomically and runs the body for each, until the range is
// exhausted; returns the or of the bodies' results. While *affinitySet is 0
// and affinityMask is not, it tries to take the mask again at each index.
using PelEntryFunction = uint32_t (*)(PelWorkInfo* info, void* arg, int32_t* rangeStart, int32_t rangeEnd,
                                      uint32_t affinityMask, int32_t* affinitySet);

enum : int32_t {
    PEL_KERNEL_TASK = 0,       // serial: function.task(arg, info) once
    PEL_KERNEL_PER_INDEX = 1,  // serial: function.index(arg, i, info) for each i, results or'ed
    PEL_KERNEL_RANGE = 2,      // serial: function.range(arg, 0, count, info) once
};

union PelKernelFunction {
    PelTaskFunction task;
    PelIndexFunction index;
    PelRangeFunction range;
};

// A constant descriptor; make one with PelKernel_task, PelKernel_perIndex or
// PelKernel_range below, so that entry and function cannot disagree.
struct PelKernel {
    PelEntryFunction entry;
    PelKernelFunction function;  // the serial path's function, by kind
    int32_t kind;
};

// --- Event ids -----------------------------------------------------------
// An event is the id of its command; 0 is never issued. A command's slot is
// reused once it has completed and no reference is held; every older id for
// the slot is then stale, which the calls below detect.

int32_t Pel_getBufferSize();
TLResult construct_Pel(Pel* pel, Env* env);
TLResult destruct_Pel(Pel* pel);
// Stops and joins the workers, drops what is queued; the parameters at the
// head of the record are kept for the next Pel_init.
TLResult Pel_recycle(Pel* pel);
// Starts numberOfWorkers threads (one fewer if the caller participates) and
// returns once all are in their loop.
TLResult Pel_init(Pel* pel);
void Pel_resetParams(Pel* pel);

// The active parameters; for a null or uninitialised pel the defaults with
// numberOfWorkers 1. TL_ERROR_PARAM for a null params.
TLResult Pel_getParams(const Pel* pel, PelParams* params);
// The active number of workers, 1 to 16; 1 for a null or uninitialised pel.
int32_t Pel_getNumberOfWorkers(const Pel* pel);

// Enqueues count indices of kernel and waits for them, helping. A null pel
// runs the kernel on the calling thread. count below 1 or a null kernel:
// nothing, TL_OK. Returns the enqueue's or the wait's failure; the kernel's
// own or'ed result is dropped with the event (use Pel_enqueueKernel and
// Pel_getEventInfo to see it). It returns only once the kernel has ended,
// a wait that ran out included (TL_ERROR_TIMEOUT then): arg is the
// caller's again.
TLResult Pel_execute(Pel* pel, const PelKernel* kernel, void* arg, int32_t count);
// events: eventCount ids that must complete first; stale or completed ones
// are satisfied already. outEvent is optional; if given, it receives the id
// and the caller holds one reference, to be released with Pel_releaseEvent.
// A null pel runs the kernel at once on the calling thread (outEvent gets 0);
// an uninitialised pel does nothing and returns TL_OK.
TLResult Pel_enqueueKernel(Pel* pel, const PelKernel* kernel, void* arg, int32_t count, int32_t eventCount,
                           const uint32_t* events, uint32_t* outEvent);
// The same for one task: entry runs once with the range [0, 1).
TLResult Pel_enqueueTask(Pel* pel, const PelKernel* kernel, void* arg, int32_t eventCount,
                         const uint32_t* events, uint32_t* outEvent);
// Returns when every event has completed or gone stale, TL_ERROR_TIMEOUT when
// a thread that cannot help waited timeoutMillis for one completion.
TLResult Pel_waitForEvents(Pel* pel, int32_t eventCount, const uint32_t* events);
// The same, except that a wait that runs out does not end it: the thread
// waits on until every event has completed or gone stale, and then returns
// TL_ERROR_TIMEOUT all the same. For callers that free, or return from
// the frame of, what the kernels touch as soon as the wait returns.
TLResult Pel_waitForEventsToEnd(Pel* pel, int32_t eventCount, const uint32_t* events);
// TL_ERROR_STATE for a stale id or a reference count of 0.
TLResult Pel_retainEvent(Pel* pel, uint32_t event);
TLResult Pel_releaseEvent(Pel* pel, uint32_t event);
// what 0: *out gets the command's or'ed result once completed,
// TL_MARK_NOT_FINISHED before. TL_ERROR_STATE for a stale id.
TLResult Pel_getEventInfo(Pel* pel, uint32_t event, int32_t what, uint32_t* out);
// what 0 to 3; there is no profiling, *out gets 0.
TLResult Pel_getEventProfilingInfo(Pel* pel, uint32_t event, int32_t what, uint64_t* out);
// Waits until every command enqueued so far has completed.
TLResult Pel_finish(Pel* pel);

// Splits count indices over workers ranges: with dynamic, all in range 0 and
// the others empty; otherwise contiguous ascending shares of count / workers,
// the remainder spread one by one as a running sum passes workers.
void Pel_partitionRanges(int32_t* startsAndEnds, int32_t count, int32_t workers, int32_t dynamic);

// For entry functions: another attempt to take the thread's mask.
void Pel_retryAffinity(PelWorkInfo* info, uint32_t affinityMask, int32_t* affinitySet);

// --- Kernel descriptors ----------------------------------------------------

template <typename Call>
inline uint32_t PelEntry_claimEach(PelWorkInfo* info, int32_t* rangeStart, int32_t rangeEnd,
                                   uint32_t affinityMask, int32_t* affinitySet, Call call) {
    uint32_t result = 0;
    for (;;) {
        // One atomic increment per index: a range is consumed exactly once
        // however many workers claim from it. The start may overshoot the end
        // by one per failed claim, which reads as empty all the same.
        const int32_t index = __atomic_fetch_add(rangeStart, 1, __ATOMIC_SEQ_CST);
        if (index >= rangeEnd) return result;
        if (*affinitySet == 0 && affinityMask != 0) Pel_retryAffinity(info, affinityMask, affinitySet);
        result |= call(index);
    }
}

template <PelTaskFunction Body>
uint32_t PelEntry_task(PelWorkInfo* info, void* arg, int32_t* rangeStart, int32_t rangeEnd,
                       uint32_t affinityMask, int32_t* affinitySet) {
    return PelEntry_claimEach(info, rangeStart, rangeEnd, affinityMask, affinitySet,
                              [&](int32_t) { return Body(arg, info); });
}

template <PelIndexFunction Body>
uint32_t PelEntry_perIndex(PelWorkInfo* info, void* arg, int32_t* rangeStart, int32_t rangeEnd,
                           uint32_t affinityMask, int32_t* affinitySet) {
    return PelEntry_claimEach(info, rangeStart, rangeEnd, affinityMask, affinitySet,
                              [&](int32_t index) { return Body(arg, index, info); });
}

// A range kernel gets one-index ranges in parallel, so that idle workers can
// still take work from slow ones; only the serial path hands it all at once.
template <PelRangeFunction Body>
uint32_t PelEntry_range(PelWorkInfo* info, void* arg, int32_t* rangeStart, int32_t rangeEnd,
                        uint32_t affinityMask, int32_t* affinitySet) {
    return PelEntry_claimEach(info, rangeStart, rangeEnd, affinityMask, affinitySet,
                              [&](int32_t index) { return Body(arg, index, index + 1, info); });
}

template <PelTaskFunction Body>
constexpr PelKernel PelKernel_task() {
    return PelKernel{PelEntry_task<Body>, {.task = Body}, PEL_KERNEL_TASK};
}

template <PelIndexFunction Body>
constexpr PelKernel PelKernel_perIndex() {
    return PelKernel{PelEntry_perIndex<Body>, {.index = Body}, PEL_KERNEL_PER_INDEX};
}

template <PelRangeFunction Body>
constexpr PelKernel PelKernel_range() {
    return PelKernel{PelEntry_range<Body>, {.range = Body}, PEL_KERNEL_RANGE};
}

// --- The record ------------------------------------------------------------

struct PelCommand;

struct PelLink {
    PelLink* next;
    PelCommand* command;  // the dependent
};

struct PelCommand {
    PelCommand* next;  // ready FIFO; the value 1 once it has left the queue
    // Stamp of the slot: the id of the command using it, or that id plus 1
    // once the slot is free again. Written under eventLock with fenced
    // stores; read without a lock by waiters that check their events.
    uint32_t id;
    uint32_t error;    // or of the results, TL_MARK_CANCELLED for a skipped run
    int32_t refCount;  // event references held by callers; under eventLock
    // Before the queue: unfinished dependencies (under eventLock). In the
    // queue: threads inside the command (under queueLock).
    int32_t busy;
    int32_t count;  // global size; 0 for a task
    PelEntryFunction entry;
    void* arg;
    int32_t* ranges;      // numberOfWorkers pairs of start and end, or null
    PelLink* dependents;  // links to dependents; the value 1 once completed (fenced stores)
    PelLink* dependentsTail;
    uint32_t insideMask;  // bit i: worker i is inside a run of it; under queueLock
};

struct PelThreadEntry {
    uintptr_t threadId;
    int32_t index;
};

struct Pel {
    PelParams params;  // the owner's settings for the next Pel_init
    Env* env;
    uint32_t flags;  // bit 0: initialised; fenced accesses
    PelParams active;
    PelCommand commands[kPelCommandCount];
    PelCommand shutdownCommand;  // at the queue head, sends every worker home
    PelCommand* readyHead;       // ready FIFO, under queueLock
    PelCommand* readyTail;
    PelLink* freeLinks;  // under eventLock
    PelLink links[kPelLinkCount];
    int32_t freeRanges;  // first free block, chained through its first word; -1: none; under queueLock
    int32_t ranges[2 * kPelRangeCount];
    int32_t freeCommands;                  // under eventLock, read with fenced loads
    uint32_t nextEventId;                  // under eventLock
    int32_t enqueued, started, completed;  // atomic counters
    int32_t threadCount;                   // threads of the pool
    uint8_t cpuList[32];                   // processors of the mask from the highest down, repeated
    Lock eventLock;                        // kind 0; taken before queueLock, never after
    Lock queueLock;                        // kind 0
    Lock stealLock;                        // kind 1, a leaf
    Condition readyCondition;  // on queueLock: a command became runnable, or helpers are to look again
    Condition eventCondition;  // on eventLock: a command completed or a slot came free
    Thread threads[kPelMaxWorkers];
    PelThreadEntry threadTable[kPelMaxWorkers];  // sorted by thread id once init returns
    int32_t workerCounter, startedCounter;       // atomic
    int32_t helpersWaiting;                      // helpers asleep on readyCondition; under queueLock
    // The thread working under each worker index now (0: none) and how deeply
    // it is nested; one thread per index, so that a range of a command has
    // one owner.
    uintptr_t indexOwner[kPelMaxWorkers];
    int32_t indexDepth[kPelMaxWorkers];
};

}  // namespace vq_tl
