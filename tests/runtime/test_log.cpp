#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/log.h"

using namespace vq_tl;

// The sink exists on every platform but Android, where lines go to the system log.
#ifndef __ANDROID__

namespace {

void captureLine(void* user, const char* line) {
    static_cast<std::vector<std::string>*>(user)->emplace_back(line);
}

}  // namespace

// One line per call: the tag before a colon, one trailing newline dropped,
// nothing for a null format. Replacing the sink takes effect at once; a null
// sink turns output off even with a user word.
TEST(Log, FormatsOneLinePerCallIntoTheCurrentSink) {
    std::vector<std::string> lines, other;
    Log_setSink(captureLine, &lines);
    Log_printLine("Sgm", "cost %d ms", 17);
    Log_printLine(nullptr, "no tag %d", 3);
    Log_printLine("", "empty tag %d", 4);
    Log_printLine("T", "%d%%", 100);
    Log_printLine("T", "newline dropped %d\n", 1);
    Log_printLine("T", "only one dropped\n\n");
    Log_printLine("Timing", "%s : %f ms, %d", "Depth", 1.5, 42);
    const char* fmt = nullptr;
    Log_printLine("T", fmt);
    Log_setSink(captureLine, &other);
    Log_printLine("B", "second");
    Log_setSink(nullptr, &other);
    Log_printLine("C", "dropped");
    EXPECT_EQ(lines, (std::vector<std::string>{"Sgm: cost 17 ms", "no tag 3", "empty tag 4", "T: 100%",
                                               "T: newline dropped 1", "T: only one dropped\n",
                                               "Timing: Depth : 1.500000 ms, 42"}));
    EXPECT_EQ(other, std::vector<std::string>{"B: second"});
    Log_setSink(nullptr, nullptr);
}

#endif  // __ANDROID__
