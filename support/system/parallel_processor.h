#pragma once
// Runs jobs side by side and waits for them all; failures are gathered and raised together.
#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "support/system/thread.h"

namespace tvrn::concurrency {

// What a job leaves: done, or the message of its failure. Reading the wrong member fails with
// "cannot convert union to given type".
class JobResult {
public:
    static JobResult done() { return JobResult(Done{}); }
    static JobResult failure(std::string message) { return JobResult(std::move(message)); }
    bool isFailure() const { return std::holds_alternative<std::string>(m_value); }
    const std::string& failureMessage() const;
    void value() const;

private:
    struct Done {};
    explicit JobResult(std::variant<Done, std::string> value) : m_value(std::move(value)) {}
    std::variant<Done, std::string> m_value;
};

class IParallelProcessor {
public:
    // Counts the job and starts it.
    virtual void submit(std::function<void()> job) = 0;
    // Waits for every job; raises one CorvaneException whose text joins the failures with ", ".
    virtual void waitAll() = 0;
    virtual ~IParallelProcessor() = default;
};

// One thread per job.
class WinParallelProcessor : public IParallelProcessor {
public:
    void submit(std::function<void()> job) override;
    void waitAll() override;
    ~WinParallelProcessor() override;

private:
    struct Job {
        std::function<void()> function;
        JobResult result = JobResult::done();
        std::unique_ptr<system::Thread> thread;
    };
    std::vector<std::unique_ptr<Job>> m_jobs;
};

}  // namespace tvrn::concurrency
