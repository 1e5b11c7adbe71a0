#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <deque>
#include <random>
#include <vector>

#include "runtime/concurrent_linked_queue.h"
#include "runtime/thread.h"
#include "stress_count.h"

using namespace vq_tl;

namespace {

void* itemOf(uintptr_t value) { return reinterpret_cast<void*>(value); }

struct QueueFixture {
    ConcurrentLinkedQueue queue;
    explicit QueueFixture(int32_t capacity) {
        construct_ConcurrentLinkedQueue(&queue, nullptr);
        EXPECT_EQ(ConcurrentLinkedQueue_init(&queue, capacity), TL_OK);
    }
    ~QueueFixture() { EXPECT_EQ(destruct_ConcurrentLinkedQueue(&queue), TL_OK); }
};

uint32_t linkOf(const ConcurrentLinkedQueue* q, uint32_t slot) {
    return __atomic_load_n(&q->links[slot], __ATOMIC_SEQ_CST);
}

}  // namespace

TEST(ConcurrentLinkedQueue, BufferSize) {
    const struct {
        int32_t capacity;
        int32_t size;
    } cases[] = {{1, 16}, {3, 32}, {262144, 2097160}, {0, -1}, {-1, -1}, {262145, -1}};
    for (const auto& c : cases) {
        EXPECT_EQ(ConcurrentLinkedQueue_getBufferSize(c.capacity), c.size) << "capacity " << c.capacity;
    }
}

TEST(ConcurrentLinkedQueue, BadArgumentsAndUninitialisedQueue) {
    ConcurrentLinkedQueue queue;
    int a = 0;
    EXPECT_EQ(construct_ConcurrentLinkedQueue(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_ConcurrentLinkedQueue(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(ConcurrentLinkedQueue_init(nullptr, 4), TL_ERROR_PARAM);
    EXPECT_EQ(ConcurrentLinkedQueue_offer(nullptr, &a), 0);
    EXPECT_EQ(ConcurrentLinkedQueue_poll(nullptr), nullptr);
    EXPECT_EQ(ConcurrentLinkedQueue_getCapacity(nullptr), -1);
    EXPECT_EQ(ConcurrentLinkedQueue_size(nullptr), -1);
    ASSERT_EQ(construct_ConcurrentLinkedQueue(&queue, nullptr), TL_OK);
    for (const int32_t capacity : {0, -1, 262145}) {
        EXPECT_EQ(ConcurrentLinkedQueue_init(&queue, capacity), TL_ERROR_PARAM) << capacity;
    }
    EXPECT_EQ(ConcurrentLinkedQueue_offer(&queue, &a), 0);
    EXPECT_EQ(ConcurrentLinkedQueue_poll(&queue), nullptr);
    EXPECT_EQ(ConcurrentLinkedQueue_size(&queue), 0);
    EXPECT_EQ(ConcurrentLinkedQueue_getCapacity(&queue), 0);
    EXPECT_EQ(destruct_ConcurrentLinkedQueue(&queue), TL_OK);
    EXPECT_EQ(destruct_ConcurrentLinkedQueue(&queue), TL_OK);
}

TEST(ConcurrentLinkedQueue, CapacityThreeHoldsThreeAndRefusesAFourth) {
    QueueFixture f(3);
    int items[4];
    EXPECT_EQ(ConcurrentLinkedQueue_offer(&f.queue, nullptr), 0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(ConcurrentLinkedQueue_offer(&f.queue, &items[i]), 1) << i;
    EXPECT_EQ(ConcurrentLinkedQueue_offer(&f.queue, &items[3]), 0);
    EXPECT_EQ(ConcurrentLinkedQueue_size(&f.queue), 3);
    EXPECT_EQ(ConcurrentLinkedQueue_getCapacity(&f.queue), 3);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(ConcurrentLinkedQueue_poll(&f.queue), &items[i]) << i;
    EXPECT_EQ(ConcurrentLinkedQueue_poll(&f.queue), nullptr);
    EXPECT_EQ(ConcurrentLinkedQueue_size(&f.queue), 0);
}

TEST(ConcurrentLinkedQueue, LargestCapacityFillsAndEmptiesInOrder) {
    QueueFixture f(262144);
    for (uintptr_t i = 1; i <= 262144; ++i) ASSERT_EQ(ConcurrentLinkedQueue_offer(&f.queue, itemOf(i)), 1);
    EXPECT_EQ(ConcurrentLinkedQueue_offer(&f.queue, itemOf(1)), 0);
    for (uintptr_t i = 1; i <= 262144; ++i) ASSERT_EQ(ConcurrentLinkedQueue_poll(&f.queue), itemOf(i));
    EXPECT_EQ(ConcurrentLinkedQueue_poll(&f.queue), nullptr);
}

TEST(ConcurrentLinkedQueue, MatchesASimpleQueueUnderRandomOperations) {
    std::mt19937 random(262144u);
    for (const int32_t capacity : {1, 2, 5, 16}) {
        QueueFixture f(capacity);
        std::deque<uintptr_t> model;
        uintptr_t next = 1;
        // Far beyond 4096 changes of every tagged word: the counters wrap.
        for (int step = 0; step < 12000; ++step) {
            if (random() % 2 == 0) {
                const int32_t expected = static_cast<int32_t>(model.size()) < capacity ? 1 : 0;
                ASSERT_EQ(ConcurrentLinkedQueue_offer(&f.queue, itemOf(next)), expected)
                    << "capacity " << capacity << " step " << step;
                if (expected) model.push_back(next);
                ++next;
            } else {
                void* const expected = model.empty() ? nullptr : itemOf(model.front());
                ASSERT_EQ(ConcurrentLinkedQueue_poll(&f.queue), expected)
                    << "capacity " << capacity << " step " << step;
                if (!model.empty()) model.pop_front();
            }
            ASSERT_EQ(ConcurrentLinkedQueue_size(&f.queue), static_cast<int32_t>(model.size()));
        }
    }
}

TEST(ConcurrentLinkedQueue, HeadCounterTellsAReusedSlotApartAndWrapsAfter4096Changes) {
    // Capacity 1: the dummy alternates between slots 0 and 1, so every second
    // poll leaves head on the slot it started on. Only the counter differs;
    // its 12 bits come round after 4096 polls without touching the slot.
    QueueFixture f(1);
    const uint32_t start = f.queue.head.load();
    for (uint32_t polls = 1; polls <= 4096; ++polls) {
        ASSERT_EQ(ConcurrentLinkedQueue_offer(&f.queue, itemOf(polls)), 1);
        ASSERT_EQ(ConcurrentLinkedQueue_poll(&f.queue), itemOf(polls));
        const uint32_t head = f.queue.head.load();
        ASSERT_EQ(Clq_slotOf(head), Clq_slotOf(start) ^ (polls & 1)) << polls;
        ASSERT_EQ(Clq_counterOf(head), (Clq_counterOf(start) + polls) & kClqCounterMask) << polls;
        if (polls < 4096) {
            ASSERT_NE(head, start) << polls;
        }
    }
    EXPECT_EQ(f.queue.head.load(), start);
    ASSERT_EQ(ConcurrentLinkedQueue_offer(&f.queue, itemOf(7)), 1);
    EXPECT_EQ(ConcurrentLinkedQueue_poll(&f.queue), itemOf(7));
}

TEST(ConcurrentLinkedQueue, StalePollCannotSwingHeadAfterTheSlotCameBack) {
    // A poll reads head, the head's link and the item, then stalls before its
    // compare-and-swap. Meanwhile A is polled, B offered and polled, and C
    // offered: head is on the same slot again, linked to the same slot, which
    // now holds C. Comparing slots alone, the stale poll would return A a
    // second time and lose C; the counter makes its swap fail.
    QueueFixture f(2);
    int a = 0;
    int b = 0;
    int c = 0;
    ASSERT_EQ(ConcurrentLinkedQueue_offer(&f.queue, &a), 1);
    uint32_t staleHead = f.queue.head.load();
    const uint32_t staleNext = linkOf(&f.queue, Clq_slotOf(staleHead));
    void* const staleItem = __atomic_load_n(&f.queue.items[Clq_slotOf(staleNext)], __ATOMIC_SEQ_CST);
    ASSERT_EQ(staleItem, &a);

    ASSERT_EQ(ConcurrentLinkedQueue_poll(&f.queue), &a);
    ASSERT_EQ(ConcurrentLinkedQueue_offer(&f.queue, &b), 1);
    ASSERT_EQ(ConcurrentLinkedQueue_poll(&f.queue), &b);
    ASSERT_EQ(ConcurrentLinkedQueue_offer(&f.queue, &c), 1);
    const uint32_t head = f.queue.head.load();
    ASSERT_EQ(Clq_slotOf(head), Clq_slotOf(staleHead));
    ASSERT_EQ(Clq_slotOf(linkOf(&f.queue, Clq_slotOf(head))), Clq_slotOf(staleNext));

    const uint32_t desired = (Clq_slotOf(staleNext) << kClqIndexShift) | ((staleHead + 1) & kClqCounterMask);
    EXPECT_FALSE(f.queue.head.compare_exchange_strong(staleHead, desired));
    EXPECT_EQ(ConcurrentLinkedQueue_poll(&f.queue), &c);
    EXPECT_EQ(ConcurrentLinkedQueue_poll(&f.queue), nullptr);
}

namespace {

// Producers send items naming producer and sequence; consumers poll until
// all items are accounted for, checking that each comes once and that each
// producer's items arrive in order.
constexpr uintptr_t kSequenceBits = 24;

struct Exchange {
    ConcurrentLinkedQueue queue;
    int32_t producers;
    int32_t perProducer;
    std::atomic<int32_t> nextProducer;
    std::atomic<int32_t> consumed;
    std::vector<std::atomic<uint8_t>> seen;
    std::atomic<int32_t> duplicates;
    std::atomic<int32_t> outOfOrder;
    std::atomic<int32_t> badSize;
};

uint32_t produce(void* argument) {
    Exchange* x = static_cast<Exchange*>(argument);
    const int32_t p = x->nextProducer.fetch_add(1);
    for (int32_t i = 0; i < x->perProducer; ++i) {
        void* item = itemOf((static_cast<uintptr_t>(p) << kSequenceBits) | static_cast<uintptr_t>(i + 1));
        while (!ConcurrentLinkedQueue_offer(&x->queue, item)) sched_yield();
    }
    return TL_OK;
}

uint32_t consume(void* argument) {
    Exchange* x = static_cast<Exchange*>(argument);
    const int32_t total = x->producers * x->perProducer;
    const int32_t capacity = ConcurrentLinkedQueue_getCapacity(&x->queue);
    std::vector<uintptr_t> last(static_cast<size_t>(x->producers), 0);
    for (uint32_t n = 0; x->consumed.load() < total; ++n) {
        if ((n & 255) == 0) {
            const int32_t size = ConcurrentLinkedQueue_size(&x->queue);
            if (size < 0 || size > capacity) x->badSize.fetch_add(1);
        }
        void* item = ConcurrentLinkedQueue_poll(&x->queue);
        if (item == nullptr) {
            sched_yield();
            continue;
        }
        const uintptr_t value = reinterpret_cast<uintptr_t>(item);
        const uintptr_t p = value >> kSequenceBits;
        const uintptr_t sequence = value & ((uintptr_t{1} << kSequenceBits) - 1);
        x->consumed.fetch_add(1);
        if (p >= last.size() || sequence < 1 || sequence > static_cast<uintptr_t>(x->perProducer)) {
            return TL_ERROR_GENERAL;
        }
        if (x->seen[p * x->perProducer + sequence - 1].exchange(1) != 0) x->duplicates.fetch_add(1);
        if (sequence <= last[p]) x->outOfOrder.fetch_add(1);
        last[p] = sequence;
    }
    return TL_OK;
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

class ConcurrentLinkedQueueExchange : public ::testing::TestWithParam<ExchangeShape> {};

TEST_P(ConcurrentLinkedQueueExchange, NothingLostNothingDuplicatedOrderKeptPerProducer) {
    const ExchangeShape shape = GetParam();
    Exchange x;
    construct_ConcurrentLinkedQueue(&x.queue, nullptr);
    ASSERT_EQ(ConcurrentLinkedQueue_init(&x.queue, shape.capacity), TL_OK);
    x.producers = shape.producers;
    x.perProducer = stressCount(shape.perProducer);
    x.nextProducer = 0;
    x.consumed = 0;
    x.seen = std::vector<std::atomic<uint8_t>>(static_cast<size_t>(x.producers) * x.perProducer);
    x.duplicates = 0;
    x.outOfOrder = 0;
    x.badSize = 0;
    std::vector<Thread> threads(static_cast<size_t>(shape.producers + shape.consumers));
    for (Thread& t : threads) construct_Thread(&t, nullptr);
    // Start them interleaved so that neither side gets a head start.
    int32_t producersLeft = shape.producers;
    int32_t consumersLeft = shape.consumers;
    for (Thread& t : threads) {
        const bool producer = producersLeft > 0 && (consumersLeft == 0 || producersLeft >= consumersLeft);
        ASSERT_EQ(Thread_start(&t, producer ? produce : consume, &x), TL_OK);
        (producer ? producersLeft : consumersLeft) -= 1;
    }
    for (Thread& t : threads) EXPECT_EQ(destruct_Thread(&t), TL_OK);
    EXPECT_EQ(x.duplicates.load(), 0);
    EXPECT_EQ(x.outOfOrder.load(), 0);
    EXPECT_EQ(x.badSize.load(), 0);
    EXPECT_EQ(x.consumed.load(), x.producers * x.perProducer);
    size_t missing = 0;
    for (const auto& s : x.seen) missing += s.load() == 0 ? 1 : 0;
    EXPECT_EQ(missing, 0u);
    EXPECT_EQ(ConcurrentLinkedQueue_size(&x.queue), 0);
    EXPECT_EQ(ConcurrentLinkedQueue_poll(&x.queue), nullptr);
    EXPECT_EQ(destruct_ConcurrentLinkedQueue(&x.queue), TL_OK);
}

// Small rings recycle slots constantly. With more threads than cores a
// stalled thread can sleep through 4096 changes of a tagged word, so the
// many-thread shapes use rings large enough that the same slot coming back
// with the same counter stays out of reach; the one-to-one shape cannot get
// that far ahead of a stalled partner.
INSTANTIATE_TEST_SUITE_P(Shapes, ConcurrentLinkedQueueExchange,
                         ::testing::Values(ExchangeShape{4, 4, 1024, 15000}, ExchangeShape{1, 1, 4, 40000},
                                           ExchangeShape{2, 2, 256, 20000}, ExchangeShape{3, 1, 256, 10000}),
                         [](const ::testing::TestParamInfo<ExchangeShape>& info) {
                             return std::to_string(info.param.producers) + "x" +
                                    std::to_string(info.param.consumers) + "Capacity" +
                                    std::to_string(info.param.capacity);
                         });
