#include "runtime/parallel_executor.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "runtime/fenced_word.h"
#include "runtime/memory.h"
#include "runtime/syscall.h"

namespace vq_tl {

namespace {

// Tells pool threads to stop; each puts it back for the next one.
char gStopMark;

void* stopMark() { return &gStopMark; }

bool isShuttingDown(const ParallelExecutor* self) { return FencedWord_load(&self->shuttingDown) != 0; }

bool isPoolEngine(const ParallelExecutor* self) {
    return self != nullptr && self->pel == nullptr && self->threads != nullptr;
}

// --- Pel engine --------------------------------------------------------------

uint32_t pelTaskBody(void* arg, PelWorkInfo* info) {
    (void)info;
    ParallelExecutorPelTask* task = static_cast<ParallelExecutorPelTask*>(arg);
    return task->function(task->arguments);
}

constexpr PelKernel kPelTaskKernel = PelKernel_task<pelTaskBody>();

struct PelExecuteCall {
    ParallelExecutorIndexFunction function;
    void* arg;
    int32_t count;
};

uint32_t pelExecuteBody(void* arg, int32_t index, PelWorkInfo* info) {
    (void)info;
    const PelExecuteCall* call = static_cast<const PelExecuteCall*>(arg);
    return call->function(call->arg, index, call->count);
}

constexpr PelKernel kPelExecuteKernel = PelKernel_perIndex<pelExecuteBody>();

TLResult pelFork(ParallelExecutor* self, ParallelExecutorFunction function, const void* arguments,
                 int32_t size) {
    ParallelExecutorPelTasks* t = self->pelTasks;
    if (t == nullptr) return TL_ERROR_STATE;
    int32_t place = __atomic_load_n(&t->forkCount, __ATOMIC_SEQ_CST);
    do {
        if (place >= t->capacity) return TL_ERROR_STATE;
    } while (!__atomic_compare_exchange_n(&t->forkCount, &place, place + 1, false, __ATOMIC_SEQ_CST,
                                          __ATOMIC_SEQ_CST));
    ParallelExecutorPelTask* task = &t->tasks[place];
    task->function = nullptr;
    task->copy = nullptr;
    t->events[place] = 0;
    if (size > 0) {
        task->copy = Memory_alloc(static_cast<size_t>(size));
        if (task->copy == nullptr) return TL_ERROR_MEMORY;
        std::memcpy(task->copy, arguments, static_cast<size_t>(size));
    }
    task->arguments = size > 0 ? task->copy : const_cast<void*>(arguments);
    task->function = function;
    TLResult r = Pel_enqueueTask(t->pel, &kPelTaskKernel, task, 0, nullptr, &t->events[place]);
    // No event means the Pel is not running: the task will never run.
    if (r == TL_OK && t->events[place] == 0) r = TL_ERROR_STATE;
    if (r != TL_OK) {
        task->function = nullptr;
        Memory_free(task->copy);
        task->copy = nullptr;
    }
    return r;
}

TLResult pelJoin(ParallelExecutor* self, uint32_t* resultOut) {
    ParallelExecutorPelTasks* t = self->pelTasks;
    uint32_t results = 0;
    TLResult r = TL_OK;
    bool late = false;
    if (t != nullptr) {
        const int32_t n = __atomic_load_n(&t->forkCount, __ATOMIC_SEQ_CST);
        for (int32_t i = 0; i < n && r == TL_OK; ++i) {
            ParallelExecutorPelTask* task = &t->tasks[i];
            if (task->function == nullptr) continue;
            // A wait that ran out has still seen the task end: its arguments
            // go as usual and the lateness is told at the end. On another
            // failure the loop ends here: a task whose wait failed may still
            // run, so its arguments are left alone rather than freed.
            r = Pel_waitForEventsToEnd(t->pel, 1, &t->events[i]);
            if (r == TL_ERROR_TIMEOUT) late = true, r = TL_OK;
            uint32_t info = 0;
            if (r == TL_OK) r = Pel_getEventInfo(t->pel, t->events[i], 0, &info);
            if (r == TL_OK) r = Pel_releaseEvent(t->pel, t->events[i]);
            if (r != TL_OK) break;
            results |= info;
            Memory_free(task->copy);
            *task = ParallelExecutorPelTask{};
        }
        __atomic_store_n(&t->forkCount, 0, __ATOMIC_SEQ_CST);
    }
    if (resultOut != nullptr) *resultOut = results;
    return r == TL_OK && late ? TL_ERROR_TIMEOUT : r;
}

TLResult pelExecute(ParallelExecutor* self, ParallelExecutorIndexFunction function, void* arg, int32_t count,
                    uint32_t* resultOut) {
    PelExecuteCall call{function, arg, count < 1 ? Pel_getNumberOfWorkers(self->pel) : count};
    uint32_t event = 0;
    TLResult r = Pel_enqueueKernel(self->pel, &kPelExecuteKernel, &call, call.count, 0, nullptr, &event);
    if (r == TL_OK && event == 0) r = TL_ERROR_STATE;
    if (r != TL_OK) return r;
    uint32_t info = 0;
    // call lives in this frame: a wait that runs out waits on for the shares
    // to end, and tells the lateness after the release.
    r = Pel_waitForEventsToEnd(self->pel, 1, &event);
    const bool late = r == TL_ERROR_TIMEOUT;
    if (late) r = TL_OK;
    if (r == TL_OK) r = Pel_getEventInfo(self->pel, event, 0, &info);
    if (r == TL_OK) r = Pel_releaseEvent(self->pel, event);
    if (r == TL_OK && resultOut != nullptr) *resultOut = info;
    return r == TL_OK && late ? TL_ERROR_TIMEOUT : r;
}

// --- Pool engine -------------------------------------------------------------

void takeMask(ParallelExecutor* self, int32_t number) {
    if (self->setAffinity == 0) return;
    uint32_t mask = 0;
    if (self->cpuCount > 0) {
        mask = 1u << self->cpus[number % self->cpuCount];
    } else if (number < 32) {
        mask = 1u << number;
    }
    // A processor that is not there refuses the mask; the thread runs anywhere.
    if (mask != 0) Syscall_setThreadAffinityMask(self->env, mask);
}

void restoreMask(ParallelExecutor* self) {
    if (self->setAffinity == 0) return;
    Syscall_setThreadAffinityMask(self->env, self->restoreMask != 0 ? self->restoreMask : 0xFFFFFFFFu);
}

// Runs one entry of the waiting queue: a task, or a share of execute (the
// executor's own address).
void runItem(ParallelExecutor* self, void* item) {
    const bool cancelled = isShuttingDown(self);
    if (item == self) {
        uint32_t result = TL_MARK_CANCELLED;
        if (!cancelled) {
            const int32_t index = __atomic_fetch_add(&self->executeIndex, 1, __ATOMIC_SEQ_CST);
            result = self->executeFunction(self->executeArg, index, self->executeCount);
        }
        __atomic_fetch_or(&self->executeResult, result, __ATOMIC_SEQ_CST);
        return;
    }
    ParallelExecutorTask* task = static_cast<ParallelExecutorTask*>(item);
    task->result = cancelled ? TL_MARK_CANCELLED : task->function(task->arguments);
}

uint32_t poolMain(void* argument) {
    ParallelExecutor* self = static_cast<ParallelExecutor*>(argument);
    const int32_t number = __atomic_fetch_add(&self->liveThreads, 1, __ATOMIC_SEQ_CST);
    takeMask(self, number);
    TLResult r = TL_OK;
    for (;;) {
        void* item = LinkedBlockingQueue_take(&self->waitingQueue);
        if (item == nullptr) {
            r = TL_ERROR_STATE;
            break;
        }
        if (item == stopMark()) {
            LinkedBlockingQueue_put(&self->waitingQueue, item);
            break;
        }
        runItem(self, item);
        LinkedBlockingQueue_put(&self->finishedQueue, item);
        // A task may have changed this thread's mask.
        takeMask(self, number);
    }
    __atomic_fetch_sub(&self->liveThreads, 1, __ATOMIC_SEQ_CST);
    return r;
}

int32_t threadTarget(const ParallelExecutor* self) {
    const int32_t caller = self->callerWorks != 0 ? 1 : 0;
    int32_t target = self->numberOfThreads;
    if (target < 0) target = Syscall_getNumberOfProcessors() - caller;
    if (target < self->runningThreads) target = self->runningThreads;
    if (target > self->maxThreads) target = self->maxThreads;
    const int32_t room = LinkedBlockingQueue_getCapacity(&self->waitingQueue) - caller;
    if (target > room) target = room;
    return target;
}

TLResult growPool(ParallelExecutor* self) {
    const int32_t target = threadTarget(self);
    while (self->runningThreads < target) {
        const TLResult r = Thread_start(&self->threads[self->runningThreads], poolMain, self);
        if (r != TL_OK) return r;
        ++self->runningThreads;
    }
    return TL_OK;
}

// Frees a finished task that join will not see and takes it off the count.
void dropTask(ParallelExecutor* self, void* item) {
    if (item == self || item == stopMark()) return;
    Memory_free(item);
    __atomic_fetch_sub(&self->taskCount, 1, __ATOMIC_SEQ_CST);
}

// The working caller empties the waiting queue itself. An entry that does
// not fit into the finished queue, which only this thread drains, is counted
// here instead: its result or'ed into *results and the task freed, or one
// more in *sharesDone for a share. Nothing is lost that way, so a full
// finished queue is no error.
void callerWork(ParallelExecutor* self, uint32_t* results, int32_t* sharesDone) {
    if (self->setAffinity != 0) {
        Syscall_setThreadAffinityMask(self->env, self->cpuCount > 0 ? 1u << self->cpus[0] : 1u);
    }
    for (;;) {
        void* item = LinkedBlockingQueue_poll(&self->waitingQueue);
        if (item == nullptr) break;
        if (item == stopMark()) {
            LinkedBlockingQueue_put(&self->waitingQueue, item);
            break;
        }
        runItem(self, item);
        if (LinkedBlockingQueue_offer(&self->finishedQueue, item) == 1) continue;
        if (item == self) {
            ++*sharesDone;
        } else {
            *results |= static_cast<ParallelExecutorTask*>(item)->result;
            dropTask(self, item);
        }
    }
    restoreMask(self);
}

TLResult poolJoin(ParallelExecutor* self, uint32_t* resultOut) {
    uint32_t results = 0;
    TLResult r = TL_OK;
    if (self->callerWorks != 0) {
        int32_t shares = 0;
        callerWork(self, &results, &shares);
    }
    while (__atomic_load_n(&self->taskCount, __ATOMIC_SEQ_CST) > 0) {
        void* item = LinkedBlockingQueue_take(&self->finishedQueue);
        if (item == nullptr) {
            r |= TL_ERROR_STATE;
            break;
        }
        if (item == self) {
            r |= TL_ERROR_STATE;  // a share left over from an execute that gave up
            continue;
        }
        results |= static_cast<ParallelExecutorTask*>(item)->result;
        dropTask(self, item);
    }
    if (resultOut != nullptr) *resultOut = results;
    return r;
}

TLResult poolExecute(ParallelExecutor* self, ParallelExecutorIndexFunction function, void* arg, int32_t count,
                     uint32_t* resultOut) {
    TLResult r = growPool(self);
    if (count < 1) count = self->runningThreads + (self->callerWorks != 0 ? 1 : 0);
    __atomic_store_n(&self->executeResult, 0u, __ATOMIC_SEQ_CST);
    if (count < 1) {
        if (resultOut != nullptr) *resultOut = 0;
        return r;
    }
    self->executeFunction = function;
    self->executeArg = arg;
    self->executeCount = count;
    __atomic_store_n(&self->executeIndex, 0, __ATOMIC_SEQ_CST);
    int32_t offered = 0;
    for (; offered < count; ++offered) {
        if (LinkedBlockingQueue_offer(&self->waitingQueue, self) != 1) {
            r |= TL_ERROR_STATE;
            break;
        }
    }
    int32_t done = 0;
    if (self->callerWorks != 0) {
        uint32_t results = 0;
        callerWork(self, &results, &done);
    }
    // Every share offered must come back before the function and its
    // argument may go; entries of forked tasks found meanwhile are errors.
    while (done < offered) {
        void* item = LinkedBlockingQueue_take(&self->finishedQueue);
        if (item == nullptr) {
            r |= TL_ERROR_STATE;
            break;
        }
        if (item == self) {
            ++done;
        } else {
            r |= TL_ERROR_STATE;
            dropTask(self, item);
        }
    }
    for (LinkedBlockingQueue* q : {&self->waitingQueue, &self->finishedQueue}) {
        for (void* item = LinkedBlockingQueue_poll(q); item != nullptr; item = LinkedBlockingQueue_poll(q)) {
            if (item == stopMark()) {
                LinkedBlockingQueue_put(q, item);
                break;
            }
            r |= TL_ERROR_STATE;
            dropTask(self, item);
        }
    }
    if (resultOut != nullptr) *resultOut = __atomic_load_n(&self->executeResult, __ATOMIC_SEQ_CST);
    return r;
}

// Queues a task of the pool engine; *queued tells whether it went in.
TLResult poolFork(ParallelExecutor* self, ParallelExecutorTask* task, bool* queued) {
    *queued = false;
    if (isShuttingDown(self)) return TL_MARK_CANCELLED;
    const TLResult grown = growPool(self);
    // Nobody would ever run it.
    if (self->runningThreads == 0 && self->callerWorks == 0) return grown | TL_ERROR_STATE;
    __atomic_fetch_add(&self->taskCount, 1, __ATOMIC_SEQ_CST);
    if (LinkedBlockingQueue_offer(&self->waitingQueue, task) != 1) {
        __atomic_fetch_sub(&self->taskCount, 1, __ATOMIC_SEQ_CST);
        return grown | TL_ERROR_STATE;
    }
    // Queued, it runs on the threads there are, whatever the growth gave.
    *queued = true;
    return TL_OK;
}

size_t taskHeaderSize() {
    constexpr size_t align = alignof(std::max_align_t);
    return (sizeof(ParallelExecutorTask) + align - 1) & ~(align - 1);
}

ParallelExecutorTask* allocateTask(ParallelExecutorFunction function, int32_t size) {
    ParallelExecutorTask* task =
        static_cast<ParallelExecutorTask*>(Memory_alloc(taskHeaderSize() + static_cast<size_t>(size)));
    if (task == nullptr) return nullptr;
    task->result = 0;
    task->function = function;
    task->arguments = reinterpret_cast<uint8_t*>(task) + taskHeaderSize();
    return task;
}

ParallelExecutorTask* makeTask(ParallelExecutorFunction function, const void* arguments, int32_t size) {
    ParallelExecutorTask* task = allocateTask(function, size);
    if (task == nullptr) return nullptr;
    if (size > 0) {
        std::memcpy(task->arguments, arguments, static_cast<size_t>(size));
    } else {
        task->arguments = const_cast<void*>(arguments);
    }
    return task;
}

// Stops the threads started so far and joins them.
TLResult stopPool(ParallelExecutor* self) {
    TLResult r = TL_OK;
    if (self->runningThreads > 0) {
        if (LinkedBlockingQueue_put(&self->waitingQueue, stopMark()) != 1) return TL_ERROR_STATE;
        for (int32_t i = 0; i < self->runningThreads; ++i) r |= Thread_join(&self->threads[i]);
        self->runningThreads = 0;
    }
    for (void* item = LinkedBlockingQueue_poll(&self->waitingQueue); item != nullptr;
         item = LinkedBlockingQueue_poll(&self->waitingQueue)) {
        if (item != stopMark()) {
            r |= TL_ERROR_STATE;
            dropTask(self, item);
        }
    }
    return r;
}

struct Settings {
    int32_t numberOfThreads, callerWorks, setAffinity;
    uint32_t affinityMask, restoreMask;
    Pel* pel;
};

Settings settingsOf(const ParallelExecutor* self) {
    return {self->numberOfThreads, self->callerWorks, self->setAffinity,
            self->affinityMask,    self->restoreMask, self->pel};
}

void applySettings(ParallelExecutor* self, const Settings& s) {
    self->numberOfThreads = s.numberOfThreads;
    self->callerWorks = s.callerWorks;
    self->setAffinity = s.setAffinity;
    self->affinityMask = s.affinityMask;
    self->restoreMask = s.restoreMask;
    self->pel = s.pel;
}

void constructState(ParallelExecutor* self, Env* env) {
    std::memset(static_cast<void*>(self), 0, sizeof(ParallelExecutor));
    self->env = env;
    construct_LinkedBlockingQueue(&self->waitingQueue, env);
    construct_LinkedBlockingQueue(&self->finishedQueue, env);
}

// Everything but the zero-fill of the destructor.
TLResult tearDown(ParallelExecutor* self) {
    TLResult r = TL_OK;
    if (self->threads != nullptr) {
        r |= ParallelExecutor_shutdown(self);
        r |= poolJoin(self, nullptr);
        r |= stopPool(self);
        for (void* item = LinkedBlockingQueue_poll(&self->finishedQueue); item != nullptr;
             item = LinkedBlockingQueue_poll(&self->finishedQueue)) {
            r |= TL_ERROR_STATE;
            dropTask(self, item);
        }
        for (int32_t i = 0; i < self->maxThreads; ++i) r |= destruct_Thread(&self->threads[i]);
        Memory_free(self->threads);
        self->threads = nullptr;
        const int32_t caller = self->callerWorks != 0 ? 1 : 0;
        if (__atomic_sub_fetch(&self->liveThreads, caller, __ATOMIC_SEQ_CST) != 0) r |= TL_ERROR_STATE;
    }
    r |= destruct_LinkedBlockingQueue(&self->waitingQueue) |
         destruct_LinkedBlockingQueue(&self->finishedQueue);
    if (self->pelTasks != nullptr) {
        // Forks still out would run on freed places: join them first.
        if (__atomic_load_n(&self->pelTasks->forkCount, __ATOMIC_SEQ_CST) > 0) r |= pelJoin(self, nullptr);
        Memory_free(self->pelTasks);
        self->pelTasks = nullptr;
    }
    return r;
}

}  // namespace

int32_t ParallelExecutor_getBufferSize(int32_t maxThreads, int32_t queueCapacity, int32_t argumentSize,
                                       int32_t maxTasks) {
    if (maxThreads < 1 || argumentSize < 0 || maxTasks < 0) return -1;
    const int32_t queue = LinkedBlockingQueue_getBufferSize(queueCapacity);
    if (queue < 0) return -1;
    const int64_t total =
        int64_t{maxTasks} * (int64_t{argumentSize} + 8) + int64_t{maxThreads} * 24 + 2 * int64_t{queue};
    return total > INT32_MAX ? -1 : static_cast<int32_t>(total);
}

TLResult construct_ParallelExecutor(ParallelExecutor* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    constructState(self, env);
    self->numberOfThreads = -1;
    self->callerWorks = 0;
    self->setAffinity = 1;
    return TL_OK;
}

TLResult destruct_ParallelExecutor(ParallelExecutor* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const TLResult r = tearDown(self);
    std::memset(static_cast<void*>(self), 0, sizeof(ParallelExecutor));
    return r;
}

TLResult ParallelExecutor_recycle(ParallelExecutor* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const Settings s = settingsOf(self);
    Env* env = self->env;
    const TLResult r = tearDown(self);
    constructState(self, env);
    applySettings(self, s);
    return r;
}

TLResult ParallelExecutor_init(ParallelExecutor* self, int32_t maxThreads, int32_t queueCapacity) {
    if (self == nullptr || maxThreads < 1 || queueCapacity < 1) return TL_ERROR_PARAM;
    if (self->numberOfThreads == 0 && self->callerWorks == 0) return TL_ERROR_PARAM;
    TLResult r = ParallelExecutor_recycle(self);
    if (r != TL_OK) return r;
    self->maxThreads = maxThreads;
    if (self->pel != nullptr) {
        if (queueCapacity > (INT32_MAX / 2) / static_cast<int32_t>(sizeof(ParallelExecutorPelTask))) {
            return TL_ERROR_PARAM;
        }
        const int32_t capacity = 2 * queueCapacity;
        const size_t bytes =
            sizeof(ParallelExecutorPelTasks) +
            static_cast<size_t>(capacity) * (sizeof(ParallelExecutorPelTask) + sizeof(uint32_t));
        uint8_t* block = static_cast<uint8_t*>(Memory_alloc(bytes));
        if (block == nullptr) return TL_ERROR_MEMORY;
        std::memset(block, 0, bytes);
        ParallelExecutorPelTasks* t = reinterpret_cast<ParallelExecutorPelTasks*>(block);
        t->pel = self->pel;
        t->capacity = capacity;
        t->tasks = reinterpret_cast<ParallelExecutorPelTask*>(block + sizeof(ParallelExecutorPelTasks));
        t->events = reinterpret_cast<uint32_t*>(t->tasks + capacity);
        self->pelTasks = t;
        return TL_OK;
    }
    r = LinkedBlockingQueue_init(&self->waitingQueue, queueCapacity);
    if (r == TL_OK) r = LinkedBlockingQueue_init(&self->finishedQueue, queueCapacity);
    if (r != TL_OK) {
        ParallelExecutor_recycle(self);
        return r;
    }
    self->liveThreads = self->callerWorks != 0 ? 1 : 0;
    self->cpuCount = 0;
    for (int32_t cpu = 0; cpu < 32; ++cpu) {
        if ((self->affinityMask >> cpu) & 1u) self->cpus[self->cpuCount++] = static_cast<uint8_t>(cpu);
    }
    Thread* threads = static_cast<Thread*>(Memory_alloc(sizeof(Thread) * static_cast<size_t>(maxThreads)));
    if (threads == nullptr) {
        ParallelExecutor_recycle(self);
        return TL_ERROR_MEMORY;
    }
    for (int32_t i = 0; i < maxThreads; ++i) construct_Thread(&threads[i], self->env);
    self->threads = threads;
    r = growPool(self);
    if (r != TL_OK) stopPool(self);
    return r;
}

TLResult ParallelExecutor_fork(ParallelExecutor* self, ParallelExecutorFunction function,
                               const void* arguments, int32_t size) {
    if (function == nullptr || size < 0 || (arguments == nullptr && size != 0)) return TL_ERROR_PARAM;
    if (self == nullptr) return function(const_cast<void*>(arguments));
    if (isShuttingDown(self)) return TL_MARK_CANCELLED;
    if (self->pel != nullptr) return pelFork(self, function, arguments, size);
    if (self->threads == nullptr) return TL_ERROR_STATE;
    ParallelExecutorTask* task = makeTask(function, arguments, size);
    if (task == nullptr) return TL_ERROR_MEMORY;
    bool queued = false;
    const TLResult r = poolFork(self, task, &queued);
    if (!queued) Memory_free(task);
    return r;
}

TLResult ParallelExecutor_join(ParallelExecutor* self) {
    uint32_t results = 0;
    const TLResult r = ParallelExecutor_join2(self, &results);
    return r | results;
}

TLResult ParallelExecutor_join2(ParallelExecutor* self, uint32_t* resultOut) {
    if (self == nullptr) {
        if (resultOut != nullptr) *resultOut = 0;
        return TL_OK;
    }
    if (self->pel != nullptr) return pelJoin(self, resultOut);
    if (self->threads == nullptr) {
        if (resultOut != nullptr) *resultOut = 0;
        return TL_OK;
    }
    return poolJoin(self, resultOut);
}

TLResult ParallelExecutor_execute(ParallelExecutor* self, ParallelExecutorIndexFunction function, void* arg,
                                  int32_t count, uint32_t* resultOut) {
    if (function == nullptr) return TL_ERROR_PARAM;
    if (self == nullptr) {
        if (count < 1) count = 1;
        uint32_t results = 0;
        for (int32_t i = 0; i < count; ++i) results |= function(arg, i, count);
        if (resultOut != nullptr) *resultOut = results;
        return TL_OK;
    }
    if (isShuttingDown(self)) return TL_MARK_CANCELLED;
    if (self->pel != nullptr) return pelExecute(self, function, arg, count, resultOut);
    if (self->threads == nullptr) return TL_ERROR_STATE;
    return poolExecute(self, function, arg, count, resultOut);
}

TLResult ParallelExecutor_shutdown(ParallelExecutor* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    FencedWord_store(&self->shuttingDown, 1);
    if (!isPoolEngine(self)) return TL_OK;
    for (;;) {
        void* item = LinkedBlockingQueue_poll(&self->waitingQueue);
        if (item == nullptr) return TL_OK;
        if (item == stopMark()) {
            LinkedBlockingQueue_put(&self->waitingQueue, item);
            return TL_OK;
        }
        if (item == self) {
            __atomic_fetch_or(&self->executeResult, TL_MARK_CANCELLED, __ATOMIC_SEQ_CST);
        } else {
            static_cast<ParallelExecutorTask*>(item)->result = TL_MARK_CANCELLED;
        }
        if (LinkedBlockingQueue_offer(&self->finishedQueue, item) != 1) {
            // No room: it goes back, marked, and a pool thread passes it on.
            LinkedBlockingQueue_offer(&self->waitingQueue, item);
            return TL_ERROR_STATE;
        }
    }
}

ParallelExecutorTask* ParallelExecutor_newTask(ParallelExecutor* self, ParallelExecutorFunction function,
                                               const void* arguments, int32_t size) {
    if (!isPoolEngine(self) || function == nullptr || size < 0 || (arguments == nullptr && size != 0)) {
        return nullptr;
    }
    return makeTask(function, arguments, size);
}

ParallelExecutorTask* ParallelExecutor_newTask_v1(ParallelExecutor* self, ParallelExecutorFunction function,
                                                  int32_t size) {
    if (!isPoolEngine(self) || function == nullptr || size < 0) return nullptr;
    return allocateTask(function, size);
}

TLResult ParallelExecutor_fork_v1(ParallelExecutor* self, ParallelExecutorTask* task) {
    if (self == nullptr || task == nullptr) return TL_ERROR_PARAM;
    if (!isPoolEngine(self)) return TL_ERROR_UNSUPPORTED;
    bool queued = false;
    return poolFork(self, task, &queued);
}

TLResult ParallelExecutor_deleteTask(ParallelExecutor* self, ParallelExecutorTask* task) {
    if (self == nullptr || task == nullptr) return TL_ERROR_PARAM;
    if (!isPoolEngine(self)) return TL_ERROR_UNSUPPORTED;
    Memory_free(task);
    return TL_OK;
}

int32_t ParallelExecutor_put(ParallelExecutor* self, ParallelExecutorTask* task) {
    return isPoolEngine(self) ? LinkedBlockingQueue_put(&self->waitingQueue, task) : 0;
}

int32_t ParallelExecutor_offer(ParallelExecutor* self, ParallelExecutorTask* task) {
    return isPoolEngine(self) ? LinkedBlockingQueue_offer(&self->waitingQueue, task) : 0;
}

int32_t ParallelExecutor_offerMillis(ParallelExecutor* self, ParallelExecutorTask* task, int32_t millis) {
    return isPoolEngine(self) ? LinkedBlockingQueue_offerMillis(&self->waitingQueue, task, millis) : 0;
}

ParallelExecutorTask* ParallelExecutor_take(ParallelExecutor* self) {
    if (!isPoolEngine(self)) return nullptr;
    return static_cast<ParallelExecutorTask*>(LinkedBlockingQueue_take(&self->finishedQueue));
}

ParallelExecutorTask* ParallelExecutor_poll(ParallelExecutor* self) {
    if (!isPoolEngine(self)) return nullptr;
    return static_cast<ParallelExecutorTask*>(LinkedBlockingQueue_poll(&self->finishedQueue));
}

ParallelExecutorTask* ParallelExecutor_pollMillis(ParallelExecutor* self, int32_t millis) {
    if (!isPoolEngine(self)) return nullptr;
    return static_cast<ParallelExecutorTask*>(LinkedBlockingQueue_pollMillis(&self->finishedQueue, millis));
}

int32_t ParallelExecutor_getNumberOfTasks(const ParallelExecutor* self) {
    return isPoolEngine(self) ? __atomic_load_n(&self->taskCount, __ATOMIC_SEQ_CST) : -1;
}

int32_t ParallelExecutor_getNumberOfWaitingTasks(const ParallelExecutor* self) {
    return isPoolEngine(self) ? LinkedBlockingQueue_size(&self->waitingQueue) : -1;
}

int32_t ParallelExecutor_getNumberOfFinishedTasks(const ParallelExecutor* self) {
    return isPoolEngine(self) ? LinkedBlockingQueue_size(&self->finishedQueue) : -1;
}

}  // namespace vq_tl
