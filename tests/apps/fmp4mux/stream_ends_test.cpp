// Streams ended early while their reader still delivers on another thread: no packet reaches an ended stream's
// engine output, and each is ended once. Runs under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "apps/fmp4mux/engine/stream_ends.h"

namespace {
using fmp4mux::StreamEnds;

TEST(StreamEnds, AnEndFromAnotherThreadStopsDeliveryAndIsSaidOnce) {
    // Input 0: stream 0 to engine output 7, stream 1 to none. Input 1: stream 0 to output 8.
    std::vector<int> endedOutputs;
    std::vector<std::string> lines;
    bool endedSeen = false;  // both written and read under the input's lock
    int deliveredAfterEnd = 0;
    std::atomic<int> delivered{0};
    StreamEnds ends({{7, -1}, {8}},
                    [&](int engine) {
                        endedOutputs.push_back(engine);
                        endedSeen = true;
                    },
                    [&](const std::string& line) { lines.push_back(line); });
    // The reader delivers until two packets in a row are refused (bounded).
    std::thread reader([&] {
        for (int i = 0, refused = 0; i < 10000000 && refused < 2; ++i) {
            bool taken = false;
            ends.deliver(0, 0, [&] {
                taken = true;
                ++delivered;
                if (endedSeen) ++deliveredAfterEnd;
            });
            refused = taken ? 0 : refused + 1;
        }
    });
    while (delivered.load() < 100) std::this_thread::yield();
    ends.endInput(0, "nothing came");
    ends.endInput(0, "nothing came");
    reader.join();
    ends.end(1, 0, "it left the program");
    ends.end(1, 0, "it left the program");
    ends.endInput(1, "");

    EXPECT_EQ(deliveredAfterEnd, 0);
    EXPECT_LT(delivered.load(), 10000000);
    EXPECT_EQ(endedOutputs, (std::vector<int>{7, 8}));
    EXPECT_TRUE(ends.ended(0, 1));
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "input 0: nothing came",
                         "input 0 stream 0: it came back after it had ended; it is left out until fmp4mux is started again",
                         "input 1 stream 0: it left the program"}));
}
}  // namespace
