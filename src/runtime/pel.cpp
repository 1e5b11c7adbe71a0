#include "runtime/pel.h"

#include <sched.h>

#include <cstring>

#include "runtime/fenced_word.h"

namespace vq_tl {

namespace {

constexpr uint32_t kFlagInitialised = 1u;

PelLink* completedMark() { return reinterpret_cast<PelLink*>(uintptr_t{1}); }
PelCommand* outOfQueueMark() { return reinterpret_cast<PelCommand*>(uintptr_t{1}); }

// What a run of the work loop waits for.
enum WaitKind : int32_t {
    WAIT_FOREVER = 0,  // a worker: until shutdown
    WAIT_EVENTS,       // a waiter: until its events are finished
    WAIT_ALL_STARTED,  // Pel_finish: until every enqueued command has started
    WAIT_PROGRESS,     // an enqueuer without a free slot: until some command completes
};

struct WaitGoal {
    WaitKind kind;
    int32_t eventCount;
    const uint32_t* events;
    int32_t completedMark;  // WAIT_PROGRESS: the completion count at the start
};

PelParams defaultParams() {
    PelParams p{};
    p.callerParticipates = 1;
    p.timeoutMillis = kPelDefaultTimeoutMillis;
    return p;
}

bool isLive(const Pel* pel) { return (FencedWord_load(&pel->flags) & kFlagInitialised) != 0; }

PelCommand* slotOf(Pel* pel, uint32_t id) { return &pel->commands[id & (kPelCommandCount - 1)]; }

// A finished event: its slot has moved on (stale) or the command completed.
// The stamp is read on both sides of the completion mark: a slot reused
// between the reads changes the stamp, so a fresh command's empty list is
// never taken for the old one's.
bool eventFinished(Pel* pel, uint32_t id) {
    PelCommand* c = slotOf(pel, id);
    if (FencedWord_load(&c->id) != id) return true;
    PelLink* dependents = FencedWord_load(&c->dependents);
    if (FencedWord_load(&c->id) != id) return true;
    return dependents == completedMark();
}

bool allFinished(Pel* pel, int32_t count, const uint32_t* events) {
    for (int32_t i = 0; i < count; ++i) {
        if (!eventFinished(pel, events[i])) return false;
    }
    return true;
}

uintptr_t selfId() { return Thread_getId(); }

// The worker index of the calling thread: its own for a pool thread; for any
// other thread 0 when the owner participates, else -1.
int32_t findIndex(const Pel* pel) {
    const uintptr_t self = selfId();
    int32_t lo = 0;
    int32_t hi = pel->threadCount;
    while (lo < hi) {
        const int32_t mid = (lo + hi) >> 1;
        const uintptr_t id = pel->threadTable[mid].threadId;
        if (id == self) return pel->threadTable[mid].index;
        if (id < self) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    return pel->active.callerParticipates != 0 ? 0 : -1;
}

bool isPoolThread(const Pel* pel) {
    const uintptr_t self = selfId();
    for (int32_t i = 0; i < pel->threadCount; ++i) {
        if (pel->threadTable[i].threadId == self) return true;
    }
    return false;
}

// One thread at a time works under an index; the same thread may nest.
bool claimIndex(Pel* pel, int32_t index) {
    const uintptr_t self = selfId();
    if (FencedWord_load(&pel->indexOwner[index]) == self) {
        ++pel->indexDepth[index];
        return true;
    }
    uintptr_t expected = 0;
    if (!__atomic_compare_exchange_n(&pel->indexOwner[index], &expected, self, false, __ATOMIC_SEQ_CST,
                                     __ATOMIC_SEQ_CST)) {
        return false;
    }
    pel->indexDepth[index] = 1;
    return true;
}

void releaseIndex(Pel* pel, int32_t index) {
    if (--pel->indexDepth[index] == 0) FencedWord_store(&pel->indexOwner[index], uintptr_t{0});
}

uint32_t maskOfIndex(const Pel* pel, int32_t index) {
    if (pel->active.pinWorkers != 0) return 1u << pel->cpuList[index];
    return pel->active.affinityMask;
}

void restoreCallerMask(Pel* pel) {
    const uint32_t mask = pel->active.restoreMask != 0 ? pel->active.restoreMask : 0xFFFFFFFFu;
    Syscall_setThreadAffinityMask(pel->env, mask);
}

// A thread about to sleep watches for a while first: waking a sleeping
// thread costs tens of microseconds, more than most gaps between the
// kernels of a frame. About 20 microseconds, checked on the clock every 64
// rounds.
constexpr uint64_t kSpinNanos = 20000;

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || (defined(__arm__) && defined(__ARM_ARCH) && __ARM_ARCH >= 7)
    __asm__ __volatile__("yield");
#endif
}

template <typename Ready>
bool spinUntil(Pel* pel, Ready ready) {
    const uint64_t start = Env_getTick(pel->env);
    for (uint32_t round = 1;; ++round) {
        if (ready()) return true;
        cpuRelax();
        if ((round & 63u) == 0 && Env_getTick(pel->env) - start > kSpinNanos) return ready();
    }
}

// --- Ready FIFO, under queueLock ---------------------------------------------

void appendReadyLocked(Pel* pel, PelCommand* c) {
    c->next = nullptr;
    const bool wasEmpty = pel->readyHead == nullptr;
    if (wasEmpty) {
        FencedWord_store(&pel->readyHead, c);
    } else {
        pel->readyTail->next = c;
    }
    pel->readyTail = c;
    if (wasEmpty) Condition_signalAll(&pel->readyCondition);
}

TLResult appendReady(Pel* pel, PelCommand* c) {
    TLResult r = Lock_lock(&pel->queueLock);
    if (r != TL_OK) return r;
    appendReadyLocked(pel, c);
    return Lock_unlock(&pel->queueLock);
}

void dequeueHead(Pel* pel) {
    PelCommand* c = pel->readyHead;
    FencedWord_store(&pel->readyHead, c->next);
    if (c->next == nullptr) pel->readyTail = nullptr;
    c->next = outOfQueueMark();
    __atomic_fetch_add(&pel->started, 1, __ATOMIC_SEQ_CST);
}

int32_t* rangeBlock(Pel* pel, int32_t block) { return &pel->ranges[2 * block * pel->active.numberOfWorkers]; }

bool takeRanges(Pel* pel, PelCommand* c) {
    if (pel->freeRanges < 0) return false;
    int32_t* block = rangeBlock(pel, pel->freeRanges);
    pel->freeRanges = block[0];
    Pel_partitionRanges(block, c->count, pel->active.numberOfWorkers, pel->active.dynamicBalance);
    c->ranges = block;
    return true;
}

void returnRanges(Pel* pel, PelCommand* c) {
    if (c->ranges == nullptr) return;
    const int32_t block = static_cast<int32_t>(c->ranges - pel->ranges) / (2 * pel->active.numberOfWorkers);
    c->ranges[0] = pel->freeRanges;
    pel->freeRanges = block;
    c->ranges = nullptr;
}

// --- Events, under eventLock ---------------------------------------------------

void freeSlot(Pel* pel, PelCommand* c) {
    FencedWord_store(&c->id, c->id + 1);
    FencedWord_store(&pel->freeCommands, pel->freeCommands + 1);
}

// A command whose last thread has left: dependents inherit its result and
// may become runnable, its links go back, and waiters learn of it.
TLResult complete(Pel* pel, PelCommand* c) {
    TLResult r = Lock_lock(&pel->eventLock);
    if (r != TL_OK) return r;
    PelLink* link = c->dependents;
    while (link != nullptr) {
        PelCommand* d = link->command;
        d->error |= c->error;
        if (--d->busy == 0) r |= appendReady(pel, d);
        PelLink* next = link->next;
        link->next = pel->freeLinks;
        pel->freeLinks = link;
        link = next;
    }
    c->dependentsTail = nullptr;
    FencedWord_store(&c->dependents, completedMark());
    __atomic_fetch_add(&pel->completed, 1, __ATOMIC_SEQ_CST);
    if (c->refCount == 0) freeSlot(pel, c);
    r |= Condition_signalAll(&pel->eventCondition);
    // Helpers asleep on the ready condition may be waiting for exactly this.
    r |= Lock_lock(&pel->queueLock);
    if (pel->helpersWaiting > 0) r |= Condition_signalAll(&pel->readyCondition);
    r |= Lock_unlock(&pel->queueLock);
    return r | Lock_unlock(&pel->eventLock);
}

bool goalReached(Pel* pel, const WaitGoal& goal) {
    switch (goal.kind) {
        case WAIT_FOREVER: return false;
        case WAIT_EVENTS: return allFinished(pel, goal.eventCount, goal.events);
        case WAIT_ALL_STARTED:
            return __atomic_load_n(&pel->started, __ATOMIC_SEQ_CST) ==
                   __atomic_load_n(&pel->enqueued, __ATOMIC_SEQ_CST);
        case WAIT_PROGRESS: return __atomic_load_n(&pel->completed, __ATOMIC_SEQ_CST) != goal.completedMark;
    }
    return true;
}

// --- Running a command, no lock held -----------------------------------------

// Takes half of the range with most indices left, looking from `from` onward.
// Returns false when no range has any left.
bool stealHalf(Pel* pel, int32_t* ranges, int32_t from, int32_t* own, int32_t* begin, int32_t* end) {
    const int32_t n = pel->active.numberOfWorkers;
    for (;;) {
        // A first look without the lock; the lock's reads below decide.
        int32_t best = -1;
        int32_t bestLeft = 0;
        for (int32_t k = 0; k < n; ++k) {
            const int32_t j = (from + k) % n;
            const int32_t left = FencedWord_load(&ranges[2 * j + 1]) - FencedWord_load(&ranges[2 * j]);
            if (left > bestLeft) {
                best = j;
                bestLeft = left;
            }
        }
        if (best < 0) return false;
        bool got = false;
        Lock_lock(&pel->stealLock);
        int32_t* start = &ranges[2 * best];
        for (int tries = 0; tries < 3 && !got; ++tries) {
            int32_t s = FencedWord_load(start);
            const int32_t e = FencedWord_load(&ranges[2 * best + 1]);
            if (s >= e) break;
            const int32_t m = static_cast<int32_t>((int64_t{s} + e + 1) >> 1);
            if (__atomic_compare_exchange_n(start, &s, m, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
                got = true;
                *begin = s;
                *end = m;
                // Published as the thief's own range, where others may steal
                // from it in turn. Its end can change only here, under the
                // lock, and only while the range is exhausted and its owner
                // outside entry; the end goes first so that the range never
                // shows indices it does not hold.
                if (own != nullptr) {
                    FencedWord_store(&own[1], m);
                    FencedWord_store(&own[0], s);
                }
            }
        }
        Lock_unlock(&pel->stealLock);
        if (got) return true;
    }
}

uint32_t runCommand(Pel* pel, PelCommand* c, int32_t index, bool nested, uint32_t mask,
                    int32_t* affinitySet) {
    PelWorkInfo info{pel, index, c->count, FencedWord_load(&c->id)};
    if (c->count == 0) {
        int32_t start = 0;
        return c->entry(&info, c->arg, &start, 1, mask, affinitySet);
    }
    const int32_t n = pel->active.numberOfWorkers;
    int32_t* ranges = c->ranges;
    uint32_t result = 0;
    if (pel->active.dynamicBalance == 0) {
        // Own share first, then the others' in turn: a worker that finishes
        // early takes what the slower ones have not claimed yet.
        for (int32_t k = 0; k < n; ++k) {
            int32_t* range = &ranges[2 * ((index + k) % n)];
            result |= c->entry(&info, c->arg, &range[0], range[1], mask, affinitySet);
        }
        return result;
    }
    int32_t begin = 0;
    int32_t end = 0;
    if (nested) {
        // This thread's outer run owns its published range; a nested run
        // works on private halves only.
        while (stealHalf(pel, ranges, index, nullptr, &begin, &end)) {
            result |= c->entry(&info, c->arg, &begin, end, mask, affinitySet);
        }
        return result;
    }
    int32_t* own = &ranges[2 * index];
    result |= c->entry(&info, c->arg, &own[0], FencedWord_load(&own[1]), mask, affinitySet);
    while (stealHalf(pel, ranges, index, own, &begin, &end)) {
        result |= c->entry(&info, c->arg, &own[0], end, mask, affinitySet);
    }
    return result;
}

// The loop of workers, and of waiters that help instead of sleeping.
TLResult workLoop(Pel* pel, int32_t index, const WaitGoal& goal) {
    const uint32_t mask = maskOfIndex(pel, index);
    int32_t affinitySet = 0;
    if (mask != 0) affinitySet = Syscall_setThreadAffinityMask(pel->env, mask) == TL_OK ? 1 : 0;
    TLResult result = Lock_lock(&pel->queueLock);
    if (result != TL_OK) return result;
    const uint32_t bit = 1u << index;
    bool spun = false;
    for (;;) {
        if (goalReached(pel, goal)) break;
        PelCommand* c = pel->readyHead;
        if (c == nullptr && !spun && (goal.kind == WAIT_FOREVER || isLive(pel))) {
            spun = true;
            Lock_unlock(&pel->queueLock);
            spinUntil(pel,
                      [&] { return FencedWord_load(&pel->readyHead) != nullptr || goalReached(pel, goal); });
            result = Lock_lock(&pel->queueLock);
            if (result != TL_OK) return result;
            continue;
        }
        spun = false;
        if (c == nullptr) {
            if (goal.kind == WAIT_FOREVER) {
                result = Condition_await(&pel->readyCondition);
                if (result != TL_OK) break;
                continue;
            }
            if (!isLive(pel)) break;
            ++pel->helpersWaiting;
            result = Condition_awaitMillis(&pel->readyCondition, pel->active.timeoutMillis);
            --pel->helpersWaiting;
            if (result != TL_OK) break;
            continue;
        }
        if (c == &pel->shutdownCommand) break;
        if (c->error == 0 && c->count > 0 && c->ranges == nullptr && !takeRanges(pel, c)) {
            // Every range block is in use by commands still running; one
            // comes back with their completion, which wakes helpers.
            ++pel->helpersWaiting;
            result = Condition_awaitMillis(&pel->readyCondition, pel->active.timeoutMillis);
            --pel->helpersWaiting;
            if (result == TL_ERROR_TIMEOUT && goal.kind == WAIT_FOREVER) result = TL_OK;
            if (result != TL_OK) break;
            continue;
        }
        const bool nested = (c->insideMask & bit) != 0;
        ++c->busy;
        c->insideMask |= bit;
        if (c->count == 0) dequeueHead(pel);
        if (c->error == 0) {
            Lock_unlock(&pel->queueLock);
            const uint32_t ran = runCommand(pel, c, index, nested, mask, &affinitySet);
            result = Lock_lock(&pel->queueLock);
            if (result != TL_OK) return result;
            c->error |= ran;
        } else {
            c->error |= TL_MARK_CANCELLED;
        }
        // Whoever gets here first has seen every range exhausted: nothing of
        // the command is left to claim, and it makes way for the next.
        if (pel->readyHead == c) dequeueHead(pel);
        if (!nested) c->insideMask &= ~bit;
        if (--c->busy == 0) {
            returnRanges(pel, c);
            Lock_unlock(&pel->queueLock);
            result = complete(pel, c);
            if (result != TL_OK) return result;
            result = Lock_lock(&pel->queueLock);
            if (result != TL_OK) return result;
        }
    }
    return result | Lock_unlock(&pel->queueLock);
}

uint32_t workerMain(void* argument) {
    Pel* pel = static_cast<Pel*>(argument);
    const int32_t index = __atomic_fetch_add(&pel->workerCounter, 1, __ATOMIC_SEQ_CST);
    const int32_t position = pel->active.callerParticipates != 0 ? index - 1 : index;
    pel->threadTable[position].threadId = selfId();
    pel->threadTable[position].index = index;
    pel->indexDepth[index] = 1;
    FencedWord_store(&pel->indexOwner[index], selfId());
    __atomic_fetch_add(&pel->startedCounter, 1, __ATOMIC_SEQ_CST);
    if (pel->active.workerStart != nullptr) pel->active.workerStart(pel->active.workerStartArg);
    const TLResult r = workLoop(pel, index, WaitGoal{WAIT_FOREVER, 0, nullptr, 0});
    if (pel->active.workerEnd != nullptr) pel->active.workerEnd(pel->active.workerStartArg);
    return r;
}

// Under eventLock: runs queued work for a while when this thread has a free
// worker index and there is a head to run, else sleeps until a completion.
TLResult helpOrWait(Pel* pel) {
    const int32_t index = findIndex(pel);
    if (index >= 0) {
        TLResult r = Lock_lock(&pel->queueLock);
        if (r != TL_OK) return r;
        const bool runnable = pel->readyHead != nullptr && pel->readyHead != &pel->shutdownCommand;
        r = Lock_unlock(&pel->queueLock);
        if (r != TL_OK) return r;
        if (runnable && claimIndex(pel, index)) {
            const int32_t mark = __atomic_load_n(&pel->completed, __ATOMIC_SEQ_CST);
            Lock_unlock(&pel->eventLock);
            r = workLoop(pel, index, WaitGoal{WAIT_PROGRESS, 0, nullptr, mark});
            releaseIndex(pel, index);
            return r | Lock_lock(&pel->eventLock);
        }
    }
    return Condition_awaitMillis(&pel->eventCondition, pel->active.timeoutMillis);
}

// Under eventLock. Takes back the links made for c to its first `upTo`
// events: each is the last of its list, since nothing else was linked meanwhile.
void unlink(Pel* pel, PelCommand* c, int32_t upTo, const uint32_t* events) {
    for (int32_t i = 0; i < upTo; ++i) {
        PelCommand* d = slotOf(pel, events[i]);
        if (d->id != events[i] || d->dependents == completedMark()) continue;
        PelLink* tail = d->dependentsTail;
        if (tail == nullptr || tail->command != c) continue;
        PelLink* before = nullptr;
        for (PelLink* l = d->dependents; l != tail; l = l->next) before = l;
        if (before == nullptr) {
            FencedWord_store(&d->dependents, static_cast<PelLink*>(nullptr));
        } else {
            before->next = nullptr;
        }
        d->dependentsTail = before;
        tail->next = pel->freeLinks;
        pel->freeLinks = tail;
    }
}

// Under eventLock with a free slot: fills it, links the open dependencies.
// Null when the links ran out; the slot is given back then.
PelCommand* claimSlot(Pel* pel, const PelKernel* kernel, void* arg, int32_t count, int32_t eventCount,
                      const uint32_t* events) {
    uint32_t id;
    for (;;) {
        id = pel->nextEventId++;
        if (id == 0) continue;
        if ((slotOf(pel, id)->id & 0xFFu) != (id & 0xFFu)) break;
    }
    PelCommand* c = slotOf(pel, id);
    // The stamp first: a lock-free reader that sees the fresh empty list
    // sees the new stamp too, and takes its old id for stale.
    FencedWord_store(&c->id, id);
    FencedWord_store(&c->dependents, static_cast<PelLink*>(nullptr));
    FencedWord_store(&pel->freeCommands, pel->freeCommands - 1);
    c->next = nullptr;
    c->error = 0;
    c->refCount = 0;
    c->busy = 0;
    c->count = count;
    c->entry = kernel->entry;
    c->arg = arg;
    c->ranges = nullptr;
    c->dependentsTail = nullptr;
    c->insideMask = 0;
    for (int32_t i = 0; i < eventCount; ++i) {
        PelCommand* d = slotOf(pel, events[i]);
        if (d->id != events[i]) continue;
        if (d->dependents == completedMark()) {
            // Done already, so no link; a failure still reaches the dependent,
            // whatever the timing.
            c->error |= d->error;
            continue;
        }
        if (d->dependentsTail != nullptr && d->dependentsTail->command == c) continue;
        PelLink* link = pel->freeLinks;
        if (link == nullptr) {
            unlink(pel, c, i, events);
            freeSlot(pel, c);
            return nullptr;
        }
        pel->freeLinks = link->next;
        link->next = nullptr;
        link->command = c;
        if (d->dependentsTail == nullptr) {
            FencedWord_store(&d->dependents, link);
        } else {
            d->dependentsTail->next = link;
        }
        d->dependentsTail = link;
        ++c->busy;
    }
    return c;
}

TLResult enqueue(Pel* pel, const PelKernel* kernel, void* arg, int32_t count, int32_t eventCount,
                 const uint32_t* events, uint32_t* outEvent) {
    TLResult r = Lock_lock(&pel->eventLock);
    if (r != TL_OK) return r;
    PelCommand* c = nullptr;
    for (;;) {
        if (!isLive(pel)) return Lock_unlock(&pel->eventLock);
        if (pel->freeCommands > 0) {
            c = claimSlot(pel, kernel, arg, count, eventCount, events);
            if (c != nullptr) break;
        }
        r = helpOrWait(pel);
        if (r != TL_OK) return r | Lock_unlock(&pel->eventLock);
    }
    __atomic_fetch_add(&pel->enqueued, 1, __ATOMIC_SEQ_CST);
    if (outEvent != nullptr) {
        *outEvent = c->id;
        c->refCount = 1;
    }
    if (c->busy == 0) r = appendReady(pel, c);
    return r | Lock_unlock(&pel->eventLock);
}

uint32_t emptyEntry(PelWorkInfo* info, void* arg, int32_t* rangeStart, int32_t rangeEnd,
                    uint32_t affinityMask, int32_t* affinitySet) {
    (void)info;
    (void)arg;
    (void)rangeStart;
    (void)rangeEnd;
    (void)affinityMask;
    (void)affinitySet;
    return TL_OK;
}

const PelKernel kEmptyKernel = {emptyEntry, {.task = nullptr}, PEL_KERNEL_TASK};

uint32_t runSerially(const PelKernel* kernel, void* arg, int32_t count) {
    PelWorkInfo info{nullptr, 0, count, 0};
    switch (kernel->kind) {
        case PEL_KERNEL_TASK: return kernel->function.task(arg, &info);
        case PEL_KERNEL_PER_INDEX: {
            uint32_t result = 0;
            for (int32_t i = 0; i < count; ++i) result |= kernel->function.index(arg, i, &info);
            return result;
        }
        case PEL_KERNEL_RANGE: return kernel->function.range(arg, 0, count, &info);
    }
    return TL_ERROR_PARAM;
}

TLResult checkEnqueueArguments(const PelKernel* kernel, int32_t count, int32_t eventCount,
                               const uint32_t* events) {
    if (kernel == nullptr || kernel->entry == nullptr || count < 0 || eventCount < 0) return TL_ERROR_PARAM;
    if (eventCount > 0 && events == nullptr) return TL_ERROR_PARAM;
    return TL_OK;
}

// Stops the threads that run and joins them; with shutdownCommand at the
// head every worker leaves its loop.
TLResult stopThreads(Pel* pel, int32_t running) {
    FencedWord_store(&pel->flags, FencedWord_load(&pel->flags) & ~kFlagInitialised);
    TLResult r = Lock_lock(&pel->queueLock);
    if (r == TL_OK) {
        pel->shutdownCommand.next = nullptr;
        FencedWord_store(&pel->readyHead, &pel->shutdownCommand);
        pel->readyTail = &pel->shutdownCommand;
        r |= Condition_signalAll(&pel->readyCondition);
        r |= Lock_unlock(&pel->queueLock);
    }
    if (Lock_lock(&pel->eventLock) == TL_OK) {
        r |= Condition_signalAll(&pel->eventCondition);
        r |= Lock_unlock(&pel->eventLock);
    }
    for (int32_t i = 0; i < running; ++i) r |= Thread_join(&pel->threads[i]);
    return r;
}

void resetTables(Pel* pel) {
    for (int32_t k = 0; k < kPelCommandCount; ++k) {
        PelCommand* c = &pel->commands[k];
        *c = PelCommand{};
        c->id = static_cast<uint32_t>(k) + 1;
        c->next = outOfQueueMark();
        c->dependents = completedMark();
    }
    pel->shutdownCommand = PelCommand{};
    FencedWord_store(&pel->readyHead, static_cast<PelCommand*>(nullptr));
    pel->readyTail = nullptr;
    for (int32_t i = 0; i < kPelLinkCount; ++i) {
        pel->links[i].next = i + 1 < kPelLinkCount ? &pel->links[i + 1] : nullptr;
        pel->links[i].command = nullptr;
    }
    pel->freeLinks = &pel->links[0];
    std::memset(pel->ranges, 0, sizeof(pel->ranges));
    const int32_t blocks = kPelRangeCount / pel->active.numberOfWorkers;
    for (int32_t b = 0; b < blocks; ++b) rangeBlock(pel, b)[0] = b + 1 < blocks ? b + 1 : -1;
    pel->freeRanges = 0;
    pel->freeCommands = kPelCommandCount;
    pel->nextEventId = 1;
    pel->enqueued = 0;
    pel->started = 0;
    pel->completed = 0;
    pel->helpersWaiting = 0;
    std::memset(pel->indexOwner, 0, sizeof(pel->indexOwner));
    std::memset(pel->indexDepth, 0, sizeof(pel->indexDepth));
    std::memset(pel->threadTable, 0, sizeof(pel->threadTable));
}

TLResult initSync(Pel* pel) {
    TLResult r = Lock_init(&pel->eventLock, LOCK_KIND_RECURSIVE_MUTEX);
    if (r == TL_OK) r = Lock_init(&pel->queueLock, LOCK_KIND_RECURSIVE_MUTEX);
    if (r == TL_OK) r = Lock_init(&pel->stealLock, LOCK_KIND_SPIN);
    if (r == TL_OK) r = Condition_init(&pel->readyCondition, &pel->queueLock);
    if (r == TL_OK) r = Condition_init(&pel->eventCondition, &pel->eventLock);
    return r;
}

TLResult recycleSync(Pel* pel) {
    return Condition_recycle(&pel->readyCondition) | Condition_recycle(&pel->eventCondition) |
           Lock_recycle(&pel->eventLock) | Lock_recycle(&pel->queueLock) | Lock_recycle(&pel->stealLock);
}

}  // namespace

void Pel_partitionRanges(int32_t* startsAndEnds, int32_t count, int32_t workers, int32_t dynamic) {
    if (dynamic != 0) {
        for (int32_t i = 0; i < workers; ++i) {
            startsAndEnds[2 * i] = 0;
            startsAndEnds[2 * i + 1] = i == 0 ? count : 0;
        }
        return;
    }
    const int32_t q = count / workers;
    const int32_t rest = count % workers;
    int32_t sum = 0;
    int32_t begin = 0;
    for (int32_t i = 0; i < workers; ++i) {
        int32_t length = q;
        sum += rest;
        if (sum >= workers) {
            sum -= workers;
            ++length;
        }
        startsAndEnds[2 * i] = begin;
        startsAndEnds[2 * i + 1] = begin + length;
        begin += length;
    }
}

void Pel_retryAffinity(PelWorkInfo* info, uint32_t affinityMask, int32_t* affinitySet) {
    Env* env = info->pel != nullptr ? info->pel->env : nullptr;
    if (Syscall_setThreadAffinityMask(env, affinityMask) == TL_OK) *affinitySet = 1;
}

int32_t Pel_getBufferSize() {
    return 2 * Condition_getBufferSize() + 4 * Lock_getBufferSize(LOCK_KIND_RECURSIVE_MUTEX) +
           kPelMaxWorkers * Thread_getBufferSize();
}

TLResult construct_Pel(Pel* pel, Env* env) {
    if (pel == nullptr) return TL_ERROR_PARAM;
    std::memset(static_cast<void*>(pel), 0, sizeof(Pel));
    pel->env = env;
    TLResult r = construct_Lock(&pel->eventLock, env) | construct_Lock(&pel->queueLock, env) |
                 construct_Lock(&pel->stealLock, env) | construct_Condition(&pel->readyCondition, env) |
                 construct_Condition(&pel->eventCondition, env);
    for (int32_t i = 0; i < kPelMaxWorkers; ++i) r |= construct_Thread(&pel->threads[i], env);
    Pel_resetParams(pel);
    pel->active = defaultParams();
    pel->active.numberOfWorkers = 1;
    return r;
}

TLResult Pel_recycle(Pel* pel) {
    if (pel == nullptr) return TL_ERROR_PARAM;
    TLResult r = TL_OK;
    if (isLive(pel)) r = stopThreads(pel, pel->threadCount);
    r |= recycleSync(pel);
    pel->flags = 0;
    pel->threadCount = 0;
    pel->active = defaultParams();
    pel->active.numberOfWorkers = 1;
    return r;
}

TLResult destruct_Pel(Pel* pel) {
    if (pel == nullptr) return TL_ERROR_PARAM;
    TLResult r = Pel_recycle(pel);
    for (int32_t i = 0; i < kPelMaxWorkers; ++i) r |= destruct_Thread(&pel->threads[i]);
    r |= destruct_Condition(&pel->readyCondition) | destruct_Condition(&pel->eventCondition) |
         destruct_Lock(&pel->eventLock) | destruct_Lock(&pel->queueLock) | destruct_Lock(&pel->stealLock);
    std::memset(static_cast<void*>(pel), 0, sizeof(Pel));
    return r;
}

void Pel_resetParams(Pel* pel) {
    if (pel != nullptr) pel->params = defaultParams();
}

TLResult Pel_init(Pel* pel) {
    if (pel == nullptr) return TL_ERROR_PARAM;
    TLResult r = Pel_recycle(pel);
    if (r != TL_OK) return r;
    PelParams a = pel->params;
    if (a.numberOfWorkers < 1) a.numberOfWorkers = Syscall_getNumberOfProcessors();
    if (a.numberOfWorkers > kPelMaxWorkers) {
        a.numberOfWorkers = kPelMaxWorkers;
        a.affinityMask = 0;
        a.restoreMask = 0;
        a.pinWorkers = 0;
    }
    if (a.pinWorkers != 0 && a.affinityMask == 0) a.affinityMask = (1u << a.numberOfWorkers) - 1u;
    pel->active = a;
    pel->threadCount = a.numberOfWorkers - (a.callerParticipates != 0 ? 1 : 0);
    std::memset(pel->cpuList, 0, sizeof(pel->cpuList));
    if (a.affinityMask != 0) {
        int32_t filled = 0;
        while (filled < 32) {
            for (int32_t cpu = 31; cpu >= 0 && filled < 32; --cpu) {
                if ((a.affinityMask >> cpu) & 1u) pel->cpuList[filled++] = static_cast<uint8_t>(cpu);
            }
        }
    }
    resetTables(pel);
    r = initSync(pel);
    if (r != TL_OK) {
        recycleSync(pel);
        pel->threadCount = 0;
        return r;
    }
    pel->workerCounter = a.callerParticipates != 0 ? 1 : 0;
    pel->startedCounter = 0;
    for (int32_t i = 0; i < pel->threadCount; ++i) {
        r = Thread_start(&pel->threads[i], workerMain, pel);
        if (r != TL_OK) {
            // The ones that run are in their loop or about to be; the
            // shutdown mark at the head reaches them either way.
            stopThreads(pel, i);
            recycleSync(pel);
            pel->threadCount = 0;
            return r;
        }
    }
    while (__atomic_load_n(&pel->startedCounter, __ATOMIC_SEQ_CST) < pel->threadCount) sched_yield();
    for (int32_t i = 1; i < pel->threadCount; ++i) {
        const PelThreadEntry e = pel->threadTable[i];
        int32_t j = i;
        for (; j > 0 && pel->threadTable[j - 1].threadId > e.threadId; --j) {
            pel->threadTable[j] = pel->threadTable[j - 1];
        }
        pel->threadTable[j] = e;
    }
    FencedWord_store(&pel->flags, kFlagInitialised);
    return TL_OK;
}

TLResult Pel_getParams(const Pel* pel, PelParams* params) {
    if (params == nullptr) return TL_ERROR_PARAM;
    if (pel == nullptr || !isLive(pel)) {
        *params = defaultParams();
        params->numberOfWorkers = 1;
        return TL_OK;
    }
    *params = pel->active;
    return TL_OK;
}

int32_t Pel_getNumberOfWorkers(const Pel* pel) {
    if (pel == nullptr || !isLive(pel)) return 1;
    return pel->active.numberOfWorkers;
}

TLResult Pel_enqueueKernel(Pel* pel, const PelKernel* kernel, void* arg, int32_t count, int32_t eventCount,
                           const uint32_t* events, uint32_t* outEvent) {
    const TLResult r = checkEnqueueArguments(kernel, count, eventCount, events);
    if (r != TL_OK) return r;
    if (outEvent != nullptr) *outEvent = 0;
    if (pel == nullptr) return count > 0 ? runSerially(kernel, arg, count) : TL_OK;
    if (!isLive(pel)) return TL_OK;
    // An empty kernel still orders its dependents and completes its event:
    // it goes in as a task that runs nothing (a count of 0 marks tasks).
    if (count == 0) return enqueue(pel, &kEmptyKernel, arg, 0, eventCount, events, outEvent);
    return enqueue(pel, kernel, arg, count, eventCount, events, outEvent);
}

TLResult Pel_enqueueTask(Pel* pel, const PelKernel* kernel, void* arg, int32_t eventCount,
                         const uint32_t* events, uint32_t* outEvent) {
    const TLResult r = checkEnqueueArguments(kernel, 0, eventCount, events);
    if (r != TL_OK) return r;
    if (outEvent != nullptr) *outEvent = 0;
    if (pel == nullptr) {
        // Only a task body can run as a task without the pool.
        if (kernel->kind != PEL_KERNEL_TASK) return TL_ERROR_UNSUPPORTED;
        return runSerially(kernel, arg, 0);
    }
    if (!isLive(pel)) return TL_OK;
    return enqueue(pel, kernel, arg, 0, eventCount, events, outEvent);
}

TLResult Pel_execute(Pel* pel, const PelKernel* kernel, void* arg, int32_t count) {
    if (kernel == nullptr || count < 1) return TL_OK;
    if (kernel->entry == nullptr) return TL_ERROR_PARAM;
    if (pel == nullptr) return runSerially(kernel, arg, count);
    if (!isLive(pel)) return TL_OK;
    uint32_t event = 0;
    TLResult r = enqueue(pel, kernel, arg, count, 0, nullptr, &event);
    if (r != TL_OK || event == 0) return r;
    r = Pel_releaseEvent(pel, event);
    if (r != TL_OK) return r;
    r = Pel_waitForEventsToEnd(pel, 1, &event);
    const PelParams& a = pel->active;
    if (a.callerParticipates != 0 && (a.pinWorkers != 0 || a.affinityMask != 0) && !isPoolThread(pel)) {
        restoreCallerMask(pel);
    }
    return r;
}

TLResult Pel_waitForEvents(Pel* pel, int32_t eventCount, const uint32_t* events) {
    if (eventCount < 1 || events == nullptr) return TL_ERROR_PARAM;
    if (pel == nullptr || !isLive(pel)) return TL_OK;
    if (allFinished(pel, eventCount, events)) return TL_OK;
    const int32_t index = findIndex(pel);
    TLResult r = Lock_lock(&pel->eventLock);
    if (r != TL_OK) return r;
    bool spun = false;
    while (!allFinished(pel, eventCount, events) && isLive(pel)) {
        if (index >= 0 && claimIndex(pel, index)) {
            Lock_unlock(&pel->eventLock);
            r = workLoop(pel, index, WaitGoal{WAIT_EVENTS, eventCount, events, 0});
            releaseIndex(pel, index);
            if (r != TL_OK) return r;
            r = Lock_lock(&pel->eventLock);
            if (r != TL_OK) return r;
            continue;
        }
        if (!spun) {
            spun = true;
            Lock_unlock(&pel->eventLock);
            spinUntil(pel, [&] { return allFinished(pel, eventCount, events); });
            r = Lock_lock(&pel->eventLock);
            if (r != TL_OK) return r;
            continue;
        }
        spun = false;
        r = Condition_awaitMillis(&pel->eventCondition, pel->active.timeoutMillis);
        if (r != TL_OK) break;
    }
    return r | Lock_unlock(&pel->eventLock);
}

TLResult Pel_waitForEventsToEnd(Pel* pel, int32_t eventCount, const uint32_t* events) {
    // Each round is a whole wait with its limit; a kernel that outlasts them
    // all still ends, since the workers never give up.
    bool late = false;
    TLResult r;
    while ((r = Pel_waitForEvents(pel, eventCount, events)) == TL_ERROR_TIMEOUT) late = true;
    return r == TL_OK && late ? TL_ERROR_TIMEOUT : r;
}

TLResult Pel_retainEvent(Pel* pel, uint32_t event) {
    if (pel == nullptr || !isLive(pel)) return TL_ERROR_STATE;
    TLResult r = Lock_lock(&pel->eventLock);
    if (r != TL_OK) return r;
    PelCommand* c = slotOf(pel, event);
    if (c->id != event || c->refCount == 0) {
        r = TL_ERROR_STATE;
    } else {
        ++c->refCount;
    }
    return r | Lock_unlock(&pel->eventLock);
}

TLResult Pel_releaseEvent(Pel* pel, uint32_t event) {
    if (pel == nullptr || !isLive(pel)) return TL_ERROR_STATE;
    TLResult r = Lock_lock(&pel->eventLock);
    if (r != TL_OK) return r;
    PelCommand* c = slotOf(pel, event);
    if (c->id != event || c->refCount == 0) {
        r = TL_ERROR_STATE;
    } else if (--c->refCount == 0 && c->dependents == completedMark()) {
        freeSlot(pel, c);
        r = Condition_signalAll(&pel->eventCondition);
    }
    return r | Lock_unlock(&pel->eventLock);
}

TLResult Pel_getEventInfo(Pel* pel, uint32_t event, int32_t what, uint32_t* out) {
    if (what != 0 || out == nullptr) return TL_ERROR_PARAM;
    if (pel == nullptr || !isLive(pel)) return TL_ERROR_STATE;
    TLResult r = Lock_lock(&pel->eventLock);
    if (r != TL_OK) return r;
    PelCommand* c = slotOf(pel, event);
    if (c->id != event) {
        r = TL_ERROR_STATE;
    } else {
        *out = c->dependents == completedMark() ? c->error : TL_MARK_NOT_FINISHED;
    }
    return r | Lock_unlock(&pel->eventLock);
}

TLResult Pel_getEventProfilingInfo(Pel* pel, uint32_t event, int32_t what, uint64_t* out) {
    (void)pel;
    (void)event;
    if (what < 0 || what > 3 || out == nullptr) return TL_ERROR_PARAM;
    *out = 0;
    return TL_OK;
}

TLResult Pel_finish(Pel* pel) {
    if (pel == nullptr || !isLive(pel)) return TL_OK;
    const int32_t index = findIndex(pel);
    TLResult r = Lock_lock(&pel->eventLock);
    if (r != TL_OK) return r;
    while (__atomic_load_n(&pel->completed, __ATOMIC_SEQ_CST) !=
               __atomic_load_n(&pel->enqueued, __ATOMIC_SEQ_CST) &&
           isLive(pel)) {
        const bool unstarted = __atomic_load_n(&pel->started, __ATOMIC_SEQ_CST) <
                               __atomic_load_n(&pel->enqueued, __ATOMIC_SEQ_CST);
        if (unstarted && index >= 0 && claimIndex(pel, index)) {
            Lock_unlock(&pel->eventLock);
            r = workLoop(pel, index, WaitGoal{WAIT_ALL_STARTED, 0, nullptr, 0});
            releaseIndex(pel, index);
            if (r != TL_OK) return r;
            r = Lock_lock(&pel->eventLock);
            if (r != TL_OK) return r;
            continue;
        }
        r = Condition_awaitMillis(&pel->eventCondition, pel->active.timeoutMillis);
        if (r != TL_OK) break;
    }
    return r | Lock_unlock(&pel->eventLock);
}

}  // namespace vq_tl
