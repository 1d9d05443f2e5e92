#pragma once

#include <concepts>
#include <cstddef>
#include <utility>
#include <vector>

namespace Fundix {

// Lets Ref<Derived> convert to Ref<Base> and Ref<T> to Ref<const T>.
template <class From, class To>
concept PointerConvertibleTo = std::convertible_to<From*, To*>;

// Counted reference to an object implementing IncRef/DecRef (see Object). A null Ref is valid and owns
// nothing. Taking a raw pointer adds a reference, so `Ref<T> r(new T)` leaves the object with a count of 1.
template <class T>
class Ref {
public:
    Ref() noexcept = default;
    Ref(std::nullptr_t) noexcept {}
    Ref(T* p) : p_(p) { Acquire(); }

    Ref(const Ref& other) : p_(other.p_) { Acquire(); }
    Ref(Ref&& other) noexcept : p_(other.Detach()) {}

    template <PointerConvertibleTo<T> U>
    Ref(const Ref<U>& other) : p_(other.Get()) {
        Acquire();
    }

    template <PointerConvertibleTo<T> U>
    Ref(Ref<U>&& other) noexcept : p_(other.Detach()) {}

    ~Ref() { Release(); }

    Ref& operator=(const Ref& other) {
        Reset(other.p_);
        return *this;
    }

    Ref& operator=(Ref&& other) noexcept {
        Ref(std::move(other)).Swap(*this);
        return *this;
    }

    T* Get() const noexcept { return p_; }
    T* operator->() const noexcept { return p_; }
    T& operator*() const noexcept { return *p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }

    // The new pointer is acquired before the old one is released, so resetting to the object already held
    // (or to one that only the old object keeps alive) is safe.
    void Reset(T* p = nullptr) {
        T* old = p_;
        p_ = p;
        Acquire();
        if (old != nullptr) {
            old->DecRef();
        }
    }

    // Gives up ownership without releasing; the caller becomes responsible for the reference.
    T* Detach() noexcept { return std::exchange(p_, nullptr); }

    void Swap(Ref& other) noexcept { std::swap(p_, other.p_); }

    friend bool operator==(const Ref& a, const Ref& b) noexcept { return a.p_ == b.p_; }
    friend bool operator==(const Ref& a, const T* b) noexcept { return a.p_ == b; }
    friend bool operator==(const Ref& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }

private:
    void Acquire() const {
        if (p_ != nullptr) {
            p_->IncRef();
        }
    }

    void Release() const {
        if (p_ != nullptr) {
            p_->DecRef();
        }
    }

    T* p_ = nullptr;
};

template <class T>
void swap(Ref<T>& a, Ref<T>& b) noexcept {
    a.Swap(b);
}

// Vector of counted references; the size constructor creates that many null slots.
template <class T>
class RefVector : public std::vector<Ref<T>> {
public:
    using std::vector<Ref<T>>::vector;

    RefVector() = default;
    explicit RefVector(std::size_t n) : std::vector<Ref<T>>(n) {}
};

}  // namespace Fundix
