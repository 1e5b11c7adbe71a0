#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "runtime/linked_blocking_queue.h"
#include "runtime/thread.h"
#include "stress_count.h"

using namespace vq_tl;

namespace {

void* itemOf(uintptr_t value) { return reinterpret_cast<void*>(value); }

struct QueueFixture {
    LinkedBlockingQueue queue;
    explicit QueueFixture(int32_t capacity) {
        construct_LinkedBlockingQueue(&queue, nullptr);
        EXPECT_EQ(LinkedBlockingQueue_init(&queue, capacity), TL_OK);
    }
    ~QueueFixture() {
        while (LinkedBlockingQueue_poll(&queue) != nullptr) {
        }
        EXPECT_EQ(destruct_LinkedBlockingQueue(&queue), TL_OK);
    }
};

}  // namespace

TEST(LinkedBlockingQueue, BufferSize) {
    const struct {
        int32_t capacity;
        int32_t size;
    } cases[] = {{1, 40}, {2, 48}, {128, 1056}, {0, -1}, {-3, -1}, {268435451, 2147483640}, {268435452, -1}};
    for (const auto& c : cases) {
        EXPECT_EQ(LinkedBlockingQueue_getBufferSize(c.capacity), c.size) << "capacity " << c.capacity;
    }
}

TEST(LinkedBlockingQueue, BadArgumentsAndUninitialisedQueue) {
    LinkedBlockingQueue queue;
    int dummy = 0;
    EXPECT_EQ(construct_LinkedBlockingQueue(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_LinkedBlockingQueue(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(LinkedBlockingQueue_init(nullptr, 4), TL_ERROR_PARAM);
    EXPECT_EQ(LinkedBlockingQueue_getCapacity(nullptr), -1);
    EXPECT_EQ(LinkedBlockingQueue_size(nullptr), -1);
    EXPECT_EQ(LinkedBlockingQueue_offer(nullptr, &dummy), 0);
    EXPECT_EQ(LinkedBlockingQueue_poll(nullptr), nullptr);
    ASSERT_EQ(construct_LinkedBlockingQueue(&queue, nullptr), TL_OK);
    EXPECT_EQ(LinkedBlockingQueue_init(&queue, 0), TL_ERROR_PARAM);
    EXPECT_EQ(LinkedBlockingQueue_init(&queue, -1), TL_ERROR_PARAM);
    // Never initialised: nothing goes in, nothing comes out, nothing blocks.
    EXPECT_EQ(LinkedBlockingQueue_put(&queue, &dummy), 0);
    EXPECT_EQ(LinkedBlockingQueue_offerMillis(&queue, &dummy, 10), 0);
    EXPECT_EQ(LinkedBlockingQueue_take(&queue), nullptr);
    EXPECT_EQ(LinkedBlockingQueue_pollMillis(&queue, 10), nullptr);
    EXPECT_EQ(LinkedBlockingQueue_size(&queue), 0);
    EXPECT_EQ(LinkedBlockingQueue_getCapacity(&queue), 0);
    EXPECT_EQ(destruct_LinkedBlockingQueue(&queue), TL_OK);
    EXPECT_EQ(destruct_LinkedBlockingQueue(&queue), TL_OK);
}

TEST(LinkedBlockingQueue, NullItemsAreRefusedAndChangeNothing) {
    QueueFixture f(2);
    int a = 0;
    ASSERT_EQ(LinkedBlockingQueue_offer(&f.queue, &a), 1);
    EXPECT_EQ(LinkedBlockingQueue_put(&f.queue, nullptr), 0);
    EXPECT_EQ(LinkedBlockingQueue_offer(&f.queue, nullptr), 0);
    EXPECT_EQ(LinkedBlockingQueue_offerMillis(&f.queue, nullptr, 5), 0);
    EXPECT_EQ(LinkedBlockingQueue_size(&f.queue), 1);
    EXPECT_EQ(LinkedBlockingQueue_poll(&f.queue), &a);
    EXPECT_EQ(LinkedBlockingQueue_poll(&f.queue), nullptr);
}

TEST(LinkedBlockingQueue, CapacityTwoRefusesThirdAndWrapsTheRing) {
    QueueFixture f(2);
    EXPECT_EQ(LinkedBlockingQueue_getCapacity(&f.queue), 2);
    uintptr_t next = 1;
    uintptr_t expected = 1;
    ASSERT_EQ(LinkedBlockingQueue_offer(&f.queue, itemOf(next++)), 1);
    ASSERT_EQ(LinkedBlockingQueue_offer(&f.queue, itemOf(next++)), 1);
    EXPECT_EQ(LinkedBlockingQueue_offer(&f.queue, itemOf(99)), 0);
    EXPECT_EQ(LinkedBlockingQueue_offerMillis(&f.queue, itemOf(99), -5), 0);
    // Four nodes in the ring: a thousand turns pass every node many times.
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(LinkedBlockingQueue_poll(&f.queue), itemOf(expected++));
        ASSERT_EQ(LinkedBlockingQueue_offer(&f.queue, itemOf(next++)), 1);
        ASSERT_EQ(LinkedBlockingQueue_offer(&f.queue, itemOf(99)), 0);
        ASSERT_EQ(LinkedBlockingQueue_size(&f.queue), 2);
    }
    EXPECT_EQ(LinkedBlockingQueue_pollMillis(&f.queue, -5), itemOf(expected++));
    EXPECT_EQ(LinkedBlockingQueue_take(&f.queue), itemOf(expected++));
    EXPECT_EQ(LinkedBlockingQueue_size(&f.queue), 0);
}

TEST(LinkedBlockingQueue, MatchesASimpleQueueUnderRandomOperations) {
    std::mt19937 random(20190326u);
    for (const int32_t capacity : {1, 2, 3, 7}) {
        QueueFixture f(capacity);
        std::deque<uintptr_t> model;
        uintptr_t next = 1;
        for (int step = 0; step < 4000; ++step) {
            const unsigned op = random() % 6;
            if (op < 3) {
                const uintptr_t value = next++;
                const int32_t expected = static_cast<int32_t>(model.size()) < capacity ? 1 : 0;
                const int32_t got = op == 0   ? LinkedBlockingQueue_offer(&f.queue, itemOf(value))
                                    : op == 1 ? LinkedBlockingQueue_offerMillis(&f.queue, itemOf(value), 0)
                                              : LinkedBlockingQueue_offerMillis(&f.queue, itemOf(value), -1);
                ASSERT_EQ(got, expected) << "capacity " << capacity << " step " << step;
                if (got) model.push_back(value);
            } else {
                void* const expected = model.empty() ? nullptr : itemOf(model.front());
                void* const got = op == 3 ? LinkedBlockingQueue_poll(&f.queue)
                                          : LinkedBlockingQueue_pollMillis(&f.queue, -5);
                ASSERT_EQ(got, expected) << "capacity " << capacity << " step " << step;
                if (got != nullptr) model.pop_front();
            }
            ASSERT_EQ(LinkedBlockingQueue_size(&f.queue), static_cast<int32_t>(model.size()));
        }
    }
}

TEST(LinkedBlockingQueue, DestructAndRecycleRefuseAQueueWithItems) {
    LinkedBlockingQueue queue;
    construct_LinkedBlockingQueue(&queue, nullptr);
    ASSERT_EQ(LinkedBlockingQueue_init(&queue, 3), TL_OK);
    int a = 0;
    int b = 0;
    ASSERT_EQ(LinkedBlockingQueue_put(&queue, &a), 1);
    ASSERT_EQ(LinkedBlockingQueue_put(&queue, &b), 1);
    EXPECT_EQ(destruct_LinkedBlockingQueue(&queue), TL_ERROR_STATE);
    EXPECT_EQ(LinkedBlockingQueue_recycle(&queue), TL_ERROR_STATE);
    EXPECT_EQ(LinkedBlockingQueue_init(&queue, 5), TL_ERROR_STATE);
    // Still whole after the refusals.
    EXPECT_EQ(LinkedBlockingQueue_getCapacity(&queue), 3);
    EXPECT_EQ(LinkedBlockingQueue_take(&queue), &a);
    EXPECT_EQ(destruct_LinkedBlockingQueue(&queue), TL_ERROR_STATE);
    EXPECT_EQ(LinkedBlockingQueue_take(&queue), &b);
    // Drained: init again with another size, then let it go.
    ASSERT_EQ(LinkedBlockingQueue_init(&queue, 5), TL_OK);
    EXPECT_EQ(LinkedBlockingQueue_getCapacity(&queue), 5);
    EXPECT_EQ(destruct_LinkedBlockingQueue(&queue), TL_OK);
    EXPECT_EQ(LinkedBlockingQueue_getCapacity(&queue), 0);
}

TEST(LinkedBlockingQueue, TimedCallsRunOutOnAFullOrEmptyQueue) {
    QueueFixture f(1);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(LinkedBlockingQueue_pollMillis(&f.queue, 30), nullptr);
    EXPECT_GE(millisSince(start), 29.5);
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(LinkedBlockingQueue_pollMillis(&f.queue, -5), nullptr);
    EXPECT_LT(millisSince(start), 1000.0);  // -5 must not wait
    int a = 0;
    int b = 0;
    ASSERT_EQ(LinkedBlockingQueue_offer(&f.queue, &a), 1);
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(LinkedBlockingQueue_offerMillis(&f.queue, &b, 30), 0);
    EXPECT_GE(millisSince(start), 29.5);
    EXPECT_EQ(LinkedBlockingQueue_take(&f.queue), &a);
}

namespace {

// One side of a blocking hand-off: runs a blocking call on its own thread
// and raises `done` once the call is back.
struct Blocked {
    LinkedBlockingQueue* queue;
    void* item;    // to put, or what was taken
    int32_t mode;  // 0 put, 1 take, 2 pollMillis of 20 s
    int32_t putResult;
    std::atomic<int> done;
};

uint32_t runBlocked(void* argument) {
    Blocked* b = static_cast<Blocked*>(argument);
    if (b->mode == 0) b->putResult = LinkedBlockingQueue_put(b->queue, b->item);
    if (b->mode == 1) b->item = LinkedBlockingQueue_take(b->queue);
    if (b->mode == 2) b->item = LinkedBlockingQueue_pollMillis(b->queue, 20000);
    b->done.store(1);
    return 0;
}

}  // namespace

TEST(LinkedBlockingQueue, PutBlocksWhileFullUntilATake) {
    QueueFixture f(1);
    int a = 0;
    int b = 0;
    ASSERT_EQ(LinkedBlockingQueue_offer(&f.queue, &a), 1);
    Blocked blocked{&f.queue, &b, 0, 0, {0}};
    Thread thread;
    construct_Thread(&thread, nullptr);
    ASSERT_EQ(Thread_start(&thread, runBlocked, &blocked), TL_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(blocked.done.load(), 0);
    EXPECT_EQ(LinkedBlockingQueue_size(&f.queue), 1);
    EXPECT_EQ(LinkedBlockingQueue_take(&f.queue), &a);
    ASSERT_EQ(destruct_Thread(&thread), TL_OK);
    EXPECT_EQ(blocked.putResult, 1);
    EXPECT_EQ(LinkedBlockingQueue_poll(&f.queue), &b);
}

TEST(LinkedBlockingQueue, TakeAndLongPollReturnAsSoonAsAnItemArrives) {
    for (const int32_t mode : {1, 2}) {
        QueueFixture f(4);
        int a = 0;
        Blocked blocked{&f.queue, nullptr, mode, 0, {0}};
        Thread thread;
        construct_Thread(&thread, nullptr);
        ASSERT_EQ(Thread_start(&thread, runBlocked, &blocked), TL_OK);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(blocked.done.load(), 0) << "mode " << mode;
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(LinkedBlockingQueue_put(&f.queue, &a), 1);
        ASSERT_EQ(destruct_Thread(&thread), TL_OK);
        // The 20 s limit of mode 2 was not waited out.
        EXPECT_LT(millisSince(start), 10000.0) << "mode " << mode;
        EXPECT_EQ(blocked.item, &a) << "mode " << mode;
    }
}

namespace {

// Producers send items that name their producer and sequence number;
// consumers check that each item comes once and that every producer's items
// arrive in order, then stop at a stop mark. Producers and consumers use the
// blocking, timed and immediate calls by turns, chosen by their number.
constexpr uintptr_t kSequenceBits = 24;
char stopMark;

struct Exchange {
    LinkedBlockingQueue queue;
    int32_t producers;
    int32_t perProducer;
    std::atomic<int32_t> nextProducer;
    std::atomic<int32_t> nextConsumer;
    std::vector<std::atomic<uint8_t>> seen;  // by producer * perProducer + sequence
    std::atomic<int32_t> duplicates;
    std::atomic<int32_t> outOfOrder;
    std::atomic<int32_t> badSize;
};

uint32_t produce(void* argument) {
    Exchange* x = static_cast<Exchange*>(argument);
    const int32_t p = x->nextProducer.fetch_add(1);
    for (int32_t i = 0; i < x->perProducer; ++i) {
        void* item = itemOf((static_cast<uintptr_t>(p) << kSequenceBits) | static_cast<uintptr_t>(i + 1));
        switch (p % 3) {
            case 0:
                if (!LinkedBlockingQueue_put(&x->queue, item)) return TL_ERROR_GENERAL;
                break;
            case 1:
                while (!LinkedBlockingQueue_offerMillis(&x->queue, item, 2)) {
                }
                break;
            default:
                while (!LinkedBlockingQueue_offer(&x->queue, item)) sched_yield();
        }
    }
    return TL_OK;
}

uint32_t consume(void* argument) {
    Exchange* x = static_cast<Exchange*>(argument);
    const int32_t c = x->nextConsumer.fetch_add(1);
    std::vector<uintptr_t> last(static_cast<size_t>(x->producers), 0);
    const int32_t capacity = LinkedBlockingQueue_getCapacity(&x->queue);
    for (uint32_t n = 0;; ++n) {
        void* item = nullptr;
        switch (c % 3) {
            case 0: item = LinkedBlockingQueue_take(&x->queue); break;
            case 1: item = LinkedBlockingQueue_pollMillis(&x->queue, 2); break;
            default:
                item = LinkedBlockingQueue_poll(&x->queue);
                if (item == nullptr) sched_yield();
        }
        if ((n & 255) == 0) {
            const int32_t size = LinkedBlockingQueue_size(&x->queue);
            if (size < 0 || size > capacity) x->badSize.fetch_add(1);
        }
        if (item == nullptr) continue;
        if (item == &stopMark) return TL_OK;
        const uintptr_t value = reinterpret_cast<uintptr_t>(item);
        const uintptr_t p = value >> kSequenceBits;
        const uintptr_t sequence = value & ((uintptr_t{1} << kSequenceBits) - 1);
        if (p >= last.size() || sequence < 1 || sequence > static_cast<uintptr_t>(x->perProducer)) {
            return TL_ERROR_GENERAL;
        }
        if (x->seen[p * x->perProducer + sequence - 1].exchange(1) != 0) x->duplicates.fetch_add(1);
        if (sequence <= last[p]) x->outOfOrder.fetch_add(1);
        last[p] = sequence;
    }
}

struct ExchangeShape {
    int32_t producers;
    int32_t consumers;
    int32_t capacity;
    int32_t perProducer;
};

// Names the shape in failure messages and in the registered test names.
void PrintTo(const ExchangeShape& shape, std::ostream* out) {
    *out << shape.producers << " producers, " << shape.consumers << " consumers, capacity " << shape.capacity;
}

}  // namespace

class LinkedBlockingQueueExchange : public ::testing::TestWithParam<ExchangeShape> {};

TEST_P(LinkedBlockingQueueExchange, NothingLostNothingDuplicatedOrderKeptPerProducer) {
    const ExchangeShape shape = GetParam();
    Exchange x;
    construct_LinkedBlockingQueue(&x.queue, nullptr);
    ASSERT_EQ(LinkedBlockingQueue_init(&x.queue, shape.capacity), TL_OK);
    x.producers = shape.producers;
    x.perProducer = stressCount(shape.perProducer);
    x.nextProducer = 0;
    x.nextConsumer = 0;
    x.seen = std::vector<std::atomic<uint8_t>>(static_cast<size_t>(x.producers) * x.perProducer);
    x.duplicates = 0;
    x.outOfOrder = 0;
    x.badSize = 0;
    std::vector<Thread> producers(static_cast<size_t>(shape.producers));
    std::vector<Thread> consumers(static_cast<size_t>(shape.consumers));
    for (Thread& t : consumers) {
        construct_Thread(&t, nullptr);
        ASSERT_EQ(Thread_start(&t, consume, &x), TL_OK);
    }
    for (Thread& t : producers) {
        construct_Thread(&t, nullptr);
        ASSERT_EQ(Thread_start(&t, produce, &x), TL_OK);
    }
    for (Thread& t : producers) EXPECT_EQ(destruct_Thread(&t), TL_OK);
    for (size_t i = 0; i < consumers.size(); ++i) ASSERT_EQ(LinkedBlockingQueue_put(&x.queue, &stopMark), 1);
    for (Thread& t : consumers) EXPECT_EQ(destruct_Thread(&t), TL_OK);
    EXPECT_EQ(x.duplicates.load(), 0);
    EXPECT_EQ(x.outOfOrder.load(), 0);
    EXPECT_EQ(x.badSize.load(), 0);
    size_t missing = 0;
    for (const auto& s : x.seen) missing += s.load() == 0 ? 1 : 0;
    EXPECT_EQ(missing, 0u);
    EXPECT_EQ(LinkedBlockingQueue_size(&x.queue), 0);
    EXPECT_EQ(destruct_LinkedBlockingQueue(&x.queue), TL_OK);
}

INSTANTIATE_TEST_SUITE_P(Shapes, LinkedBlockingQueueExchange,
                         ::testing::Values(ExchangeShape{4, 4, 8, 15000}, ExchangeShape{1, 1, 1, 5000},
                                           ExchangeShape{2, 5, 3, 10000}, ExchangeShape{5, 2, 64, 6000}),
                         [](const ::testing::TestParamInfo<ExchangeShape>& info) {
                             return std::to_string(info.param.producers) + "x" +
                                    std::to_string(info.param.consumers) + "Capacity" +
                                    std::to_string(info.param.capacity);
                         });
