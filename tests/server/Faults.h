// What the server suite's tests share: expecting a fault of one class.
#pragma once

#include <gtest/gtest.h>

#include <fundix/Exception.h>
#include <fundix/Ref.h>

// The fault of class `Fault` that `f` raises, or null (and a failure) when it raises another or none.
template <class Fault, class F>
Fundix::Ref<Fault> ExpectFault(F&& f) {
    try {
        f();
        ADD_FAILURE() << "no fault";
    } catch (const typename Fault::Exception& e) {
        return e.GetFault();
    } catch (const Fundix::Exception& e) {
        ADD_FAILURE() << "raised " << e.GetMessage();
    }
    return nullptr;
}
