// The monotonic clock, and the two checks both queues share: a sequential
// model and a producer-consumer exchange.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "support/test_env.h"

namespace vq_tl_test {

inline double millisSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

inline void* itemOf(uintptr_t value) { return reinterpret_cast<void*>(value); }

// Random offers and polls against std::deque: every refusal, item and size as
// the model says; `way` picks among the calls. fillFirst offers come first.
template <typename Offer, typename Poll, typename Size>
void matchModel(uint32_t seed, size_t capacity, int steps, Offer offer, Poll poll, Size size,
                int fillFirst = 0) {
    std::mt19937 random(seed);
    std::deque<uintptr_t> model;
    for (uintptr_t step = 1; step <= static_cast<uintptr_t>(steps); ++step) {
        const uint32_t r = random();
        if (fillFirst > 0 ? step <= static_cast<uintptr_t>(fillFirst) : r % 2 == 0) {
            ASSERT_EQ(offer(itemOf(step), r / 2), model.size() < capacity) << "step " << step;
            if (model.size() < capacity) model.push_back(step);
        } else {
            ASSERT_EQ(poll(r / 2), model.empty() ? nullptr : itemOf(model.front())) << "step " << step;
            if (!model.empty()) model.pop_front();
        }
        ASSERT_EQ(size(), static_cast<int32_t>(model.size())) << "step " << step;
    }
}

// Producers send items that name producer and sequence number; consumers
// check that each item comes exactly once, that every producer's items arrive
// in order and that the size stays within the capacity, until each has taken
// one stop mark. Started by turns, so that neither side gets a head start.
struct ExchangeShape {
    int32_t producers, consumers, capacity, perProducer;
};

template <typename Send, typename Receive, typename Size>
void runExchange(const ExchangeShape& s, Send send, Receive receive, Size size) {
    SCOPED_TRACE(testing::Message() << s.producers << " producers, " << s.consumers << " consumers, capacity "
                                    << s.capacity);
    static char stopMark;
    const int32_t each = vq_tl_test_scaled(s.perProducer, s.perProducer / 16);
    std::vector<std::atomic<uint8_t>> seen(static_cast<size_t>(s.producers * each));
    std::atomic<int32_t> faults{0};
    std::vector<std::thread> producers, consumers;
    for (int32_t i = 0; i < std::max(s.producers, s.consumers); ++i) {
        if (i < s.consumers) {
            consumers.emplace_back([&, i] {
                std::vector<int32_t> next(static_cast<size_t>(s.producers), 0);
                for (uint32_t n = 0;; ++n) {
                    const int32_t count = (n & 255) == 0 ? size() : 0;
                    if (count < 0 || count > s.capacity) faults.fetch_add(1);
                    void* const item = receive(i);
                    if (item == &stopMark) return;
                    if (item == nullptr) {
                        sched_yield();
                        continue;
                    }
                    const uintptr_t v = reinterpret_cast<uintptr_t>(item) - 1;
                    const size_t p = v / each;
                    if (p >= next.size() || seen[v].exchange(1) != 0 ||
                        static_cast<int32_t>(v % each) < next[p]) {
                        faults.fetch_add(1);
                    }
                    if (p < next.size()) next[p] = static_cast<int32_t>(v % each) + 1;
                }
            });
        }
        if (i < s.producers) {
            producers.emplace_back([&, i] {
                for (int32_t k = 1; k <= each; ++k) {
                    while (!send(itemOf(static_cast<uintptr_t>(i * each + k)), i)) sched_yield();
                }
            });
        }
    }
    for (std::thread& t : producers) t.join();
    for (size_t i = 0; i < consumers.size(); ++i) {
        while (!send(&stopMark, 0)) sched_yield();
    }
    for (std::thread& t : consumers) t.join();
    EXPECT_EQ(faults.load(), 0);
    EXPECT_EQ(std::count_if(seen.begin(), seen.end(), [](auto& x) { return x.load() == 0; }), 0) << "lost";
    EXPECT_EQ(size(), 0);
}

}  // namespace vq_tl_test
