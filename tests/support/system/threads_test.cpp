#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>

#include "support/exceptions/corvane_exception.h"
#include "support/system/parallel_processor.h"
#include "support/system/timer.h"
#include "support/system/working_thread.h"
#include "tests/common/bytes.h"
#include "tests/common/waiting.h"

namespace {
using tvrn::concurrency::WorkingThread;

// Counts how many copies of it are destroyed while still holding an item.
struct Tracked {
    Tracked() = default;
    explicit Tracked(std::atomic<int>* d, int v) : destroyed(d), value(v) {}
    Tracked(const Tracked&) = delete;
    Tracked(Tracked&& o) noexcept : destroyed(std::exchange(o.destroyed, nullptr)), value(o.value) {}
    Tracked& operator=(Tracked&& o) noexcept {
        destroyed = std::exchange(o.destroyed, nullptr);
        value = o.value;
        return *this;
    }
    ~Tracked() {
        if (destroyed) destroyed->fetch_add(1);
    }
    std::atomic<int>* destroyed = nullptr;
    int value = 0;
};

TEST(WorkingThread, HandlesInPostOrderAndSurvivesAHandlerThatCatches) {
    std::mutex m;
    std::condition_variable cv;
    std::vector<int> seen;
    {
        WorkingThread<int> worker([&](const int& v) {
            try {
                if (v == 3) throw CorvaneException("bad item");
            } catch (const CorvaneException&) {
                // the handler's own catch keeps the worker going
            }
            std::lock_guard lock(m);
            seen.push_back(v);
            cv.notify_all();
        });
        for (int i = 0; i < 5; ++i) worker.post(i);
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return seen.size() == 5; });
    }
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(WorkingThread, ItemsLeftAtDestructionAreDroppedAndDestroyedOnce) {
    std::atomic<int> destroyed{0};
    std::atomic<int> handled{0};
    std::promise<void> entered;
    std::promise<void> release;
    auto releaseFuture = release.get_future().share();
    {
        WorkingThread<Tracked> worker([&](const Tracked&) {
            if (handled.fetch_add(1) == 0) {
                entered.set_value();
                releaseFuture.wait();
            }
        });
        worker.post(Tracked(&destroyed, 1));
        entered.get_future().wait();  // the worker holds item 1; the next ones stay queued
        worker.post(Tracked(&destroyed, 2));
        worker.post(Tracked(&destroyed, 3));
        std::thread releaser([&] { release.set_value(); });
        releaser.join();
        // Destruction right after: the stop comes before anything still queued.
    }
    EXPECT_GE(handled.load(), 1);
    EXPECT_EQ(destroyed.load(), 3);
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
    processor.submit([&] {
        ran++;
        throw CorvaneException("first");
    });
    processor.submit([&] {
        ran++;
        throw CorvaneException("second");
    });
    EXPECT_EQ(testkit::failureOf<CorvaneException>([&] { processor.waitAll(); }), "first, second");
    EXPECT_EQ(ran.load(), 3);
    processor.submit([&] { ran++; });
    EXPECT_NO_THROW(processor.waitAll());

    const auto done = tvrn::concurrency::JobResult::done();
    EXPECT_THROW(done.failureMessage(), std::logic_error);
    EXPECT_THROW(tvrn::concurrency::JobResult::failure("x").value(), std::logic_error);
}
}  // namespace
