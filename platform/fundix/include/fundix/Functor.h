#pragma once

#include <functional>
#include <type_traits>
#include <utility>

#include "fundix/Exception.h"

namespace Fundix {

template <class Sig>
class Functor;

// Type-erased callable. Unlike a bare std::function, calling an empty Functor raises this library's
// InvalidArgumentException rather than a standard exception type.
template <class R, class... A>
class Functor<R(A...)> {
public:
    Functor() = default;

    // Excludes Functor itself so that copying an empty Functor yields an empty one, not a wrapper around it.
    template <class F, class = std::enable_if_t<!std::is_same_v<std::remove_cvref_t<F>, Functor> &&
                                                std::is_invocable_r_v<R, F&, A...>>>
    Functor(F&& callable) : fn_(std::forward<F>(callable)) {}

    explicit operator bool() const { return static_cast<bool>(fn_); }

    R operator()(A... args) const {
        if (!fn_) {
            throw InvalidArgumentException("empty functor");
        }
        return fn_(std::forward<A>(args)...);
    }

private:
    std::function<R(A...)> fn_;
};

}  // namespace Fundix
