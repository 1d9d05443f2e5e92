#pragma once

#include <string>
#include <type_traits>
#include <utility>

#include "fundix/Exception.h"

namespace Fundix {

// A value that may be absent. Reading an unset optional throws InvalidArgumentException instead of
// returning a default, so a missing value is never mistaken for a real one.
// True when a U converts to a T without losing anything: what list-initialisation allows, so no
// narrowing, and never a pointer (or a string literal) becoming a bool.
template <class U, class T>
concept ConvertsWithoutLoss =
    std::is_same_v<std::remove_cvref_t<U>, T> ||
    (!(std::is_same_v<T, bool> && std::is_pointer_v<std::decay_t<U>>) && requires(U&& u) { T{std::forward<U>(u)}; });

template <class T>
class Optional {
public:
    Optional() = default;
    template <class U = T>
        requires ConvertsWithoutLoss<U, T>
    Optional(U&& value) : value_(std::forward<U>(value)), set_(true) {}

    template <class U = T>
        requires ConvertsWithoutLoss<U, T>
    Optional& operator=(U&& value) {
        Set(T(std::forward<U>(value)));
        return *this;
    }

    bool IsSet() const { return set_; }

    const T& GetValue() const {
        CheckSet();
        return value_;
    }

    T& GetValue() {
        CheckSet();
        return value_;
    }

    const T& operator*() const { return GetValue(); }
    T& operator*() { return GetValue(); }
    const T* operator->() const { return &GetValue(); }
    T* operator->() { return &GetValue(); }

    void Set(T value) {
        value_ = std::move(value);
        set_ = true;
    }

    // Also resets the stored value so whatever it holds is released now rather than on the next Set.
    void Unset() {
        value_ = T();
        set_ = false;
    }

    friend bool operator==(const Optional& a, const Optional& b) {
        return a.set_ == b.set_ && (!a.set_ || a.value_ == b.value_);
    }
    friend bool operator==(const Optional& a, const T& b) { return a.set_ && a.value_ == b; }

private:
    void CheckSet() const {
        if (!set_) {
            throw InvalidArgumentException("unset optional");
        }
    }

    T value_{};
    bool set_ = false;
};

// A string that may be absent, held in place: setting, copying and clearing one allocates only what its
// text needs, as a plain string would. A null C string gives an unset optional; a moved-from optional is
// unset.
template <>
class Optional<std::string> {
public:
    Optional() = default;
    Optional(std::string value) : value_(std::move(value)), set_(true) {}
    Optional(const char* value) {
        if (value != nullptr) {
            value_ = value;
            set_ = true;
        }
    }

    Optional(const Optional& other) = default;
    Optional(Optional&& other) noexcept : value_(std::move(other.value_)), set_(other.set_) { other.Unset(); }

    Optional& operator=(const Optional& other) = default;
    Optional& operator=(Optional&& other) noexcept {
        if (this != &other) {
            value_ = std::move(other.value_);
            set_ = other.set_;
            other.Unset();
        }
        return *this;
    }

    Optional& operator=(std::string value) {
        Set(std::move(value));
        return *this;
    }
    Optional& operator=(const char* value) { return *this = Optional(value); }

    bool IsSet() const { return set_; }

    const std::string& GetValue() const {
        CheckSet();
        return value_;
    }

    std::string& GetValue() {
        CheckSet();
        return value_;
    }

    const std::string& operator*() const { return GetValue(); }
    std::string& operator*() { return GetValue(); }
    const std::string* operator->() const { return &GetValue(); }
    std::string* operator->() { return &GetValue(); }

    // The string, or null when unset.
    const std::string* GetPtr() const { return set_ ? &value_ : nullptr; }

    void Set(std::string value) {
        value_ = std::move(value);
        set_ = true;
    }

    // Releases the text now rather than on the next Set: an unset optional holds no memory.
    void Unset() {
        std::string().swap(value_);
        set_ = false;
    }

    friend bool operator==(const Optional& a, const Optional& b) {
        return a.set_ == b.set_ && (!a.set_ || a.value_ == b.value_);
    }
    friend bool operator==(const Optional& a, const std::string& b) { return a.set_ && a.value_ == b; }
    friend bool operator==(const Optional& a, const char* b) {
        return b == nullptr ? !a.set_ : a.set_ && a.value_ == b;
    }

private:
    void CheckSet() const {
        if (!set_) {
            throw InvalidArgumentException("unset optional");
        }
    }

    std::string value_;
    bool set_ = false;
};

}  // namespace Fundix
