#include "support/system/parallel_processor.h"

#include <stdexcept>

#include "support/exceptions/corvane_exception.h"

namespace tvrn::concurrency {

const std::string& JobResult::failureMessage() const {
    if (!isFailure()) throw std::logic_error("cannot convert union to given type");
    return std::get<std::string>(m_value);
}

void JobResult::value() const {
    if (isFailure()) throw std::logic_error("cannot convert union to given type");
}

void WinParallelProcessor::submit(std::function<void()> job) {
    auto entry = std::make_unique<Job>();
    entry->function = std::move(job);
    Job* raw = entry.get();
    m_jobs.push_back(std::move(entry));
    raw->thread = std::make_unique<system::Thread>([raw] {
        try {
            raw->function();
            raw->result = JobResult::done();
        } catch (const std::exception& e) {
            raw->result = JobResult::failure(e.what());
        } catch (...) {
            raw->result = JobResult::failure("unknown failure");
        }
    });
}

void WinParallelProcessor::waitAll() {
    std::string failures;
    for (auto& job : m_jobs) {
        job->thread.reset();  // joins
        if (job->result.isFailure()) {
            if (!failures.empty()) failures += ", ";
            failures += job->result.failureMessage();
        }
    }
    m_jobs.clear();
    if (!failures.empty()) throw CorvaneException(failures);
}

WinParallelProcessor::~WinParallelProcessor() {
    for (auto& job : m_jobs) job->thread.reset();
}

}  // namespace tvrn::concurrency
