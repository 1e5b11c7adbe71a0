#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "runtime/log.h"
#include "support/test_env.h"

using namespace vq_tl;

// The sink exists on every platform but Android, where lines go to the system log.
#ifndef __ANDROID__

namespace {

void captureLine(void* user, const char* line) {
    static_cast<std::vector<std::string>*>(user)->emplace_back(line);
}

// Installs the capturing sink for one test and always takes it away again, so
// no test leaves a dangling user pointer behind.
class LogSink : public ::testing::Test {
protected:
    void SetUp() override { Log_setSink(captureLine, &lines); }
    void TearDown() override { Log_setSink(nullptr, nullptr); }
    std::vector<std::string> lines;
};

}  // namespace

TEST_F(LogSink, FormatsOneLinePerCall) {
    const struct {
        const char* tag;
        const char* fmt;
        int value;
        const char* expected;
    } cases[] = {
        {"Sgm", "cost %d ms", 17, "Sgm: cost 17 ms"},
        {nullptr, "no tag %d", 3, "no tag 3"},
        {"", "empty tag %d", 4, "empty tag 4"},
        {"T", "%d%%", 100, "T: 100%"},
        {"T", "newline dropped %d\n", 1, "T: newline dropped 1"},
        {"T", "only one newline dropped %d\n\n", 2, "T: only one newline dropped 2\n"},
        {"T", "", 0, "T: "},
    };
    for (const auto& c : cases) {
        lines.clear();
        Log_printLine(c.tag, c.fmt, c.value);
        EXPECT_EQ(lines, std::vector<std::string>{c.expected}) << c.fmt;
    }
    lines.clear();
    Log_printLine("Timing", "%s :      %f ms, %s, %d", "Depth", 1.5, "sgm", 42);
    const char* fmt = nullptr;
    Log_printLine("T", fmt);  // prints nothing
    EXPECT_EQ(lines, std::vector<std::string>{"Timing: Depth :      1.500000 ms, sgm, 42"});
}

TEST_F(LogSink, LongLinesAreCutAtTheLimit) {
    // Lengths around the limit, with a tag taking part of it.
    for (const int n : {kLogMaxLine - 4, kLogMaxLine - 3, kLogMaxLine, kLogMaxLine + 1, 5000}) {
        lines.clear();
        Log_printLine("tag", "%s", std::string(n, 'x').c_str());
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0], "tag: " + std::string(std::min(n, kLogMaxLine - 5), 'x')) << n;
    }
    // A tag longer than the limit leaves no room for the text.
    lines.clear();
    Log_printLine(std::string(kLogMaxLine + 10, 't').c_str(), "text");
    EXPECT_EQ(lines, std::vector<std::string>{std::string(kLogMaxLine, 't')});
}

TEST_F(LogSink, UserWordIsHandedThroughAndReplacingTheSinkTakesEffect) {
    std::vector<std::string> other;
    Log_printLine("A", "first");
    Log_setSink(captureLine, &other);
    Log_printLine("B", "second");
    Log_setSink(nullptr, &other);  // null sink: output off even with a user word
    Log_printLine("C", "dropped");
    Log_printLine(nullptr, "dropped");
    EXPECT_EQ(lines, std::vector<std::string>{"A: first"});
    EXPECT_EQ(other, std::vector<std::string>{"B: second"});
}

TEST_F(LogSink, LinesFromManyThreadsArriveWholeAndSerialised) {
    // The capturing sink is not thread-safe by itself; the log's serialisation
    // must keep its vector intact and every line unmixed.
    const int threads = 4, perThread = vq_tl_test_scaled(500, 100);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t, perThread] {
            for (int i = 0; i < perThread; ++i) Log_printLine("W", "thread %d line %d", t, i);
        });
    }
    for (std::thread& w : workers) w.join();
    ASSERT_EQ(lines.size(), static_cast<size_t>(threads * perThread));
    std::vector<int> next(threads, 0);
    for (const std::string& line : lines) {
        int t = -1, i = -1;
        ASSERT_EQ(std::sscanf(line.c_str(), "W: thread %d line %d", &t, &i), 2) << line;
        ASSERT_TRUE(t >= 0 && t < threads) << line;
        EXPECT_EQ(i, next[t]) << "lines of one thread keep their order";
        next[t] = i + 1;
    }
}

#endif  // __ANDROID__
