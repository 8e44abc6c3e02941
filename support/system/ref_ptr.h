#pragma once
// Reference counting for the COM-style objects (media buffers, samples, the filter): one counter with one set of
// memory orders, and one smart pointer that takes and gives back references.
#include <atomic>
#include <utility>

namespace tvrn::encoding {

// The count of an object that starts with one reference, its creator's. Taking a reference needs no ordering;
// giving one back publishes this thread's writes to the thread that frees the object.
class RefCount {
public:
    unsigned long add() { return m_count.fetch_add(1, std::memory_order_relaxed) + 1; }
    // The references left; the caller frees the object at 0.
    unsigned long release() { return m_count.fetch_sub(1, std::memory_order_acq_rel) - 1; }
    // A pooled object handed out again starts with its new holder's one reference.
    void restart() { m_count.store(1, std::memory_order_relaxed); }

private:
    std::atomic<unsigned long> m_count{1};
};

// A counted reference to an object with AddRef and Release.
template <typename T>
class RefPtr {
public:
    RefPtr() = default;
    // Takes a new reference.
    explicit RefPtr(T* p) : m_p(p) {
        if (m_p) m_p->AddRef();
    }
    // Adopts a reference that the caller already holds (a new object's first one).
    static RefPtr adopt(T* p) {
        RefPtr r;
        r.m_p = p;
        return r;
    }
    RefPtr(const RefPtr& o) : RefPtr(o.m_p) {}
    RefPtr(RefPtr&& o) noexcept : m_p(std::exchange(o.m_p, nullptr)) {}
    RefPtr& operator=(RefPtr o) noexcept {
        std::swap(m_p, o.m_p);
        return *this;
    }
    ~RefPtr() { reset(); }

    void reset() {
        if (m_p) std::exchange(m_p, nullptr)->Release();
    }
    // Gives the reference to the caller, who releases it.
    T* detach() { return std::exchange(m_p, nullptr); }
    T* get() const { return m_p; }
    T* operator->() const { return m_p; }
    T& operator*() const { return *m_p; }
    explicit operator bool() const { return m_p != nullptr; }

private:
    T* m_p = nullptr;
};

}  // namespace tvrn::encoding
