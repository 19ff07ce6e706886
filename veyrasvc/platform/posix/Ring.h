// A queue in which to make room and to use it are apart: room is made where an operation may still fail, and used where
// nothing may fail any more.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace Vantor::Sentrix::Platform {

// T is default-constructible, and moving it throws nothing.
template <class T> class Ring {
public:
    bool Empty() const { return m_size == 0; }
    std::size_t Size() const { return m_size; }
    std::size_t Capacity() const { return m_capacity; }

    // Room for `count` elements altogether. Fails: false without memory, and nothing has changed.
    bool Reserve(std::size_t count) {
        constexpr std::size_t kFewest = 8;
        return count <= m_capacity || MoveInto(std::bit_ceil(std::max(count, kFewest)));
    }

    // Requires: room.
    void PushBack(T element) { At(m_size++) = std::move(element); }
    void PushFront(T element) {
        m_first = (m_first - 1) & (m_capacity - 1);
        ++m_size;
        At(0) = std::move(element);
    }

    // Requires: an element.
    T& Front() { return At(0); }
    T PopFront() {
        T front = std::exchange(At(0), T());
        m_first = (m_first + 1) & (m_capacity - 1);
        --m_size;
        return front;
    }

    // Requires: index < Size().
    T& operator[](std::size_t index) { return At(index); }

    // Drops what is in it, and the room.
    void Clear() {
        m_elements.reset();
        m_capacity = m_first = m_size = 0;
    }

private:
    T& At(std::size_t index) { return m_elements[(m_first + index) & (m_capacity - 1)]; }

    bool MoveInto(std::size_t capacity) {
        std::unique_ptr<T[]> elements(new (std::nothrow) T[capacity]);
        if (!elements) {
            return false;
        }
        for (std::size_t i = 0; i < m_size; ++i) {
            elements[i] = std::move(At(i));
        }
        m_elements = std::move(elements);
        m_capacity = capacity;
        m_first = 0;
        return true;
    }

    std::unique_ptr<T[]> m_elements;
    std::size_t m_capacity = 0; // a power of two, or 0
    std::size_t m_first = 0;
    std::size_t m_size = 0;
};

} // namespace Vantor::Sentrix::Platform
