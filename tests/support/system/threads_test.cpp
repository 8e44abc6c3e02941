#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>

#include "support/exceptions/corvane_exception.h"
#include "support/system/parallel_processor.h"
#include "support/system/timer.h"
#include "support/system/working_thread.h"
#include "tests/common/bytes.h"
#include "tests/common/waiting.h"

namespace {
using tvrn::concurrency::WorkingThread;

TEST(WorkingThread, HandlesItemsInPostOrder) {
    testkit::Guarded<std::vector<int>> seen;
    {
        WorkingThread<int> worker([&](const int& v) { seen.update([v](std::vector<int>& s) { s.push_back(v); }); });
        for (int i = 0; i < 5; ++i) worker.post(i);
        EXPECT_TRUE(seen.waitFor([](const std::vector<int>& s) { return s.size() == 5; }));
    }
    EXPECT_EQ(seen.get(), (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(WorkingThread, ItemsLeftAtDestructionAreDroppedAndDestroyed) {
    // Every item holds a reference to the token: once the worker is gone, only the test's own is left.
    const auto token = std::make_shared<int>(0);
    std::atomic<int> handled{0};
    std::promise<void> entered, release;
    auto released = release.get_future().share();
    {
        WorkingThread<std::shared_ptr<int>> worker([&](const std::shared_ptr<int>&) {
            if (handled.fetch_add(1) == 0) {
                entered.set_value();
                released.wait();
            }
        });
        worker.post(token);
        entered.get_future().wait();  // the worker holds item 1; the next ones stay queued
        worker.post(token);
        worker.post(token);
        release.set_value();
        // Destruction right after: the stop comes before anything still queued.
    }
    EXPECT_GE(handled.load(), 1);
    EXPECT_EQ(token.use_count(), 1);
}

TEST(Timer, CallsPeriodicallyAndStopsWhenTheHandleGoes) {
    // The count lives on the heap and goes right after the handle: a call after the handle's destruction
    // would touch freed memory, which the address sanitizer run reports.
    auto calls = std::make_unique<testkit::Guarded<int>>();
    auto timer = tvrn::timer::MakeTimer(5, [counter = calls.get()] { counter->update([](int& n) { ++n; }); });
    EXPECT_TRUE(calls->waitFor([](int n) { return n >= 3; }));
    timer.reset();
    calls.reset();
    EXPECT_EQ(testkit::failureOf<CorvaneException>([] { tvrn::timer::MakeTimer(0, [] {}); }), "Could not create timer");
}

TEST(ParallelProcessor, RunsAllJobsAndJoinsTheirFailures) {
    tvrn::concurrency::WinParallelProcessor processor;
    std::atomic<int> ran{0};
    processor.submit([&] { ran++; });
    for (const char* failure : {"first", "second"}) {
        processor.submit([&ran, failure] {
            ran++;
            throw CorvaneException(failure);
        });
    }
    EXPECT_EQ(testkit::failureOf<CorvaneException>([&] { processor.waitAll(); }), "first, second");
    EXPECT_EQ(ran.load(), 3);
    processor.submit([&] { ran++; });
    EXPECT_NO_THROW(processor.waitAll());

    const auto done = tvrn::concurrency::JobResult::done();
    EXPECT_THROW(done.failureMessage(), std::logic_error);
    EXPECT_THROW(tvrn::concurrency::JobResult::failure("x").value(), std::logic_error);
}
}  // namespace
