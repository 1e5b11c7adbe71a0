#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "runtime/log.h"
#include "support/test_env.h"

using namespace vq_tl;

// The sink exists on every platform but Android, where lines go to the system log.
#ifndef __ANDROID__

namespace {

struct Captured {
    std::vector<std::string> lines;
};

void captureLine(void* user, const char* line) { static_cast<Captured*>(user)->lines.emplace_back(line); }

// Installs the capturing sink for one test and always takes it away again, so
// no test leaves a dangling user pointer behind.
class LogSink : public ::testing::Test {
protected:
    void SetUp() override { Log_setSink(captureLine, &captured); }
    void TearDown() override { Log_setSink(nullptr, nullptr); }
    Captured captured;
};

}  // namespace

TEST_F(LogSink, FormatsOneLinePerCall) {
    struct Case {
        const char* tag;
        const char* fmt;
        int value;
        const char* expected;
    };
    const Case cases[] = {
        {"Sgm", "cost %d ms", 17, "Sgm: cost 17 ms"},
        {"Sgm", "negative %d", -5, "Sgm: negative -5"},
        {nullptr, "no tag %d", 3, "no tag 3"},
        {"", "empty tag %d", 4, "empty tag 4"},
        {"T", "%d%%", 100, "T: 100%"},
        {"T", "newline dropped %d\n", 1, "T: newline dropped 1"},
        {"T", "only one newline dropped %d\n\n", 2, "T: only one newline dropped 2\n"},
        {"T", "", 0, "T: "},
    };
    for (const Case& c : cases) {
        captured.lines.clear();
        Log_printLine(c.tag, c.fmt, c.value);
        ASSERT_EQ(captured.lines.size(), 1u) << c.fmt;
        EXPECT_EQ(captured.lines[0], c.expected) << c.fmt;
    }
}

TEST_F(LogSink, FloatsAndSeveralArgumentsFormatLikePrintf) {
    Log_printLine("Timing", "%s :      %f ms, %s, %d", "Depth", 1.5, "sgm", 42);
    ASSERT_EQ(captured.lines.size(), 1u);
    EXPECT_EQ(captured.lines[0], "Timing: Depth :      1.500000 ms, sgm, 42");
}

TEST_F(LogSink, NullFormatPrintsNothing) {
    const char* fmt = nullptr;
    Log_printLine("T", fmt);
    EXPECT_TRUE(captured.lines.empty());
}

TEST_F(LogSink, LongLinesAreCutAtTheLimit) {
    // Lengths around the limit, with and without a tag taking part of it.
    const int lengths[] = {kLogMaxLine - 4, kLogMaxLine - 3, kLogMaxLine, kLogMaxLine + 1, 5000};
    for (const int n : lengths) {
        const std::string text(n, 'x');
        captured.lines.clear();
        Log_printLine("tag", "%s", text.c_str());
        ASSERT_EQ(captured.lines.size(), 1u);
        const size_t expected = std::min<size_t>(n + 5, kLogMaxLine);
        EXPECT_EQ(captured.lines[0].size(), expected) << n;
        EXPECT_EQ(captured.lines[0].compare(0, 5, "tag: "), 0);
    }
    // A tag longer than the limit leaves no room for the text.
    const std::string tag(kLogMaxLine + 10, 't');
    captured.lines.clear();
    Log_printLine(tag.c_str(), "text");
    ASSERT_EQ(captured.lines.size(), 1u);
    EXPECT_EQ(captured.lines[0], std::string(kLogMaxLine, 't'));
}

TEST_F(LogSink, UserWordIsHandedThroughAndReplacingTheSinkTakesEffect) {
    Captured other;
    Log_printLine("A", "first");
    Log_setSink(captureLine, &other);
    Log_printLine("B", "second");
    Log_setSink(nullptr, &other);  // null sink: output off even with a user word
    Log_printLine("C", "dropped");
    ASSERT_EQ(captured.lines.size(), 1u);
    EXPECT_EQ(captured.lines[0], "A: first");
    ASSERT_EQ(other.lines.size(), 1u);
    EXPECT_EQ(other.lines[0], "B: second");
}

TEST_F(LogSink, LinesFromManyThreadsArriveWholeAndSerialised) {
    // The capturing sink is not thread-safe by itself; the log's serialisation
    // must keep its vector intact and every line unmixed.
    const int threads = 4;
    const int perThread = vq_tl_test_scaled(500, 100);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t, perThread] {
            for (int i = 0; i < perThread; ++i) Log_printLine("W", "thread %d line %d", t, i);
        });
    }
    for (std::thread& w : workers) w.join();
    ASSERT_EQ(captured.lines.size(), static_cast<size_t>(threads * perThread));
    std::vector<int> next(threads, 0);
    for (const std::string& line : captured.lines) {
        int t = -1;
        int i = -1;
        ASSERT_EQ(std::sscanf(line.c_str(), "W: thread %d line %d", &t, &i), 2) << line;
        ASSERT_GE(t, 0);
        ASSERT_LT(t, threads);
        EXPECT_EQ(i, next[t]) << "lines of one thread keep their order";
        next[t] = i + 1;
    }
}

#endif  // __ANDROID__

TEST(Log, WithoutSinkNothingHappens) {
    Log_setSink(nullptr, nullptr);
    Log_printLine("T", "%d %s", 1, "dropped");
    Log_printLine(nullptr, "dropped");
}

TEST(TestEnv, EmulationFlagFollowsTheVariable) {
    const char* saved = std::getenv("VQ_TL_EMULATED");
    const std::string restore = saved != nullptr ? saved : "";
    struct Case {
        const char* value;  // null: unset
        bool emulated;
    };
    const Case cases[] = {{nullptr, false}, {"", false}, {"0", false}, {"1", true}, {"yes", true}};
    for (const Case& c : cases) {
        if (c.value == nullptr) {
            unsetenv("VQ_TL_EMULATED");
        } else {
            setenv("VQ_TL_EMULATED", c.value, 1);
        }
        EXPECT_EQ(vq_tl_test_isEmulated(), c.emulated) << (c.value ? c.value : "(unset)");
        EXPECT_EQ(vq_tl_test_scaled(100, 10), c.emulated ? 10 : 100);
    }
    if (saved != nullptr) {
        setenv("VQ_TL_EMULATED", restore.c_str(), 1);
    } else {
        unsetenv("VQ_TL_EMULATED");
    }
}
