// A list of at most N elements in place: it needs no memory of its own, and an element costs nothing until it is there.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace Vantor::Sentrix::Platform {

template <class T, std::size_t N> class FixedVector {
public:
    FixedVector() {} // NOLINT(modernize-use-equals-default): that would clear the storage
    ~FixedVector() { Clear(); }
    FixedVector(const FixedVector&) = delete;
    FixedVector& operator=(const FixedVector&) = delete;

    // Requires: fewer than N elements.
    template <class... Parts> T& Add(Parts&&... parts) {
        return *::new (static_cast<void*>(m_storage + sizeof(T) * m_size++)) T{std::forward<Parts>(parts)...};
    }
    void Clear() {
        std::destroy(begin(), end());
        m_size = 0;
    }

    std::size_t Size() const { return m_size; }
    bool Empty() const { return m_size == 0; }
    bool Full() const { return m_size == N; }
    T* begin() { return std::launder(reinterpret_cast<T*>(m_storage)); }
    T* end() { return begin() + m_size; }
    T& operator[](std::size_t index) { return begin()[index]; }

private:
    alignas(T) unsigned char m_storage[sizeof(T) * N];
    std::size_t m_size = 0;
};

} // namespace Vantor::Sentrix::Platform
