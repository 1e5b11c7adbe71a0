// Hand-off cost of the blocking queue that carries frames and pool tasks
// between threads.
#include <benchmark/benchmark.h>

#include "runtime/linked_blocking_queue.h"
#include "runtime/thread.h"

using namespace vq_tl;

namespace {

char stopMark;

struct PingPong {
    LinkedBlockingQueue ping;
    LinkedBlockingQueue pong;
};

// Sends every item from ping straight back on pong, until the stop mark.
uint32_t echo(void* argument) {
    PingPong* p = static_cast<PingPong*>(argument);
    for (;;) {
        void* item = LinkedBlockingQueue_take(&p->ping);
        if (item == nullptr) return TL_ERROR_GENERAL;
        if (LinkedBlockingQueue_put(&p->pong, item) != 1) return TL_ERROR_GENERAL;
        if (item == &stopMark) return TL_OK;
    }
}

}  // namespace

// One iteration: put on one queue, the other thread takes it and puts it on
// the second queue, take it back. Two wake-ups of a sleeping thread per trip.
static void BM_LinkedBlockingQueueRoundTrip(benchmark::State& state) {
    PingPong p;
    construct_LinkedBlockingQueue(&p.ping, nullptr);
    construct_LinkedBlockingQueue(&p.pong, nullptr);
    LinkedBlockingQueue_init(&p.ping, static_cast<int32_t>(state.range(0)));
    LinkedBlockingQueue_init(&p.pong, static_cast<int32_t>(state.range(0)));
    Thread thread;
    construct_Thread(&thread, nullptr);
    if (Thread_start(&thread, echo, &p) != TL_OK) {
        state.SkipWithError("thread did not start");
        return;
    }
    int token = 0;
    for (auto _ : state) {
        LinkedBlockingQueue_put(&p.ping, &token);
        benchmark::DoNotOptimize(LinkedBlockingQueue_take(&p.pong));
    }
    LinkedBlockingQueue_put(&p.ping, &stopMark);
    LinkedBlockingQueue_take(&p.pong);
    if (destruct_Thread(&thread) != TL_OK) state.SkipWithError("echo thread failed");
    destruct_LinkedBlockingQueue(&p.ping);
    destruct_LinkedBlockingQueue(&p.pong);
}
BENCHMARK(BM_LinkedBlockingQueueRoundTrip)->Arg(1)->Arg(128)->UseRealTime();

// The same calls on one thread, nobody waiting: the floor under a hand-off.
static void BM_LinkedBlockingQueueOfferPollAlone(benchmark::State& state) {
    LinkedBlockingQueue queue;
    construct_LinkedBlockingQueue(&queue, nullptr);
    LinkedBlockingQueue_init(&queue, 128);
    int token = 0;
    for (auto _ : state) {
        LinkedBlockingQueue_offer(&queue, &token);
        benchmark::DoNotOptimize(LinkedBlockingQueue_poll(&queue));
    }
    destruct_LinkedBlockingQueue(&queue);
}
BENCHMARK(BM_LinkedBlockingQueueOfferPollAlone);
