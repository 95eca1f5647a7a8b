// A heap of our own, and an allocator on it, for what a metric keeps between
// the host's queries while the event log's and the host's threads allocate and
// free around it. Kept apart, those blocks neither fragment the runtime's heap
// (whose free lists some runtimes search linearly) nor get scattered by it,
// and once freed together they coalesce again.
//
// Ownership: PrivateHeap owns the heap and destroys it, with every block still
// in it, when it goes: whatever allocates from it must go first.
// Failure: when the system cannot create a heap, the process heap serves
// instead. A failed allocation throws std::bad_alloc.
// Threads: the heap serialises itself; any thread may allocate and free.
#pragma once

#include <windows.h>

#include <cstddef>
#include <new>

namespace zeph {

class PrivateHeap {
public:
    PrivateHeap() noexcept : heap_(::HeapCreate(0, 0, 0)) {}
    ~PrivateHeap()
    {
        if (heap_ != nullptr) {
            ::HeapDestroy(heap_);
        }
    }
    PrivateHeap(const PrivateHeap&) = delete;
    PrivateHeap& operator=(const PrivateHeap&) = delete;

    HANDLE get() const noexcept { return heap_ != nullptr ? heap_ : ::GetProcessHeap(); }

private:
    HANDLE heap_;
};

template <typename T>
class PrivateHeapAllocator {
public:
    using value_type = T;

    explicit PrivateHeapAllocator(const PrivateHeap& heap) noexcept : heap_(heap.get()) {}
    template <typename U>
    PrivateHeapAllocator(const PrivateHeapAllocator<U>& other) noexcept : heap_(other.heap_)
    {
    }

    T* allocate(std::size_t count)
    {
        if (count > static_cast<std::size_t>(-1) / sizeof(T)) {
            throw std::bad_alloc();
        }
        void* block = ::HeapAlloc(heap_, 0, count * sizeof(T));
        if (block == nullptr) {
            throw std::bad_alloc();
        }
        return static_cast<T*>(block);
    }

    void deallocate(T* block, std::size_t) noexcept { ::HeapFree(heap_, 0, block); }

    template <typename U>
    bool operator==(const PrivateHeapAllocator<U>& other) const noexcept
    {
        return heap_ == other.heap_;
    }

private:
    template <typename U>
    friend class PrivateHeapAllocator;

    HANDLE heap_;
};

}  // namespace zeph
