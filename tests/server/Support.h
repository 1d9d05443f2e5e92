// What the server suite's tests share: expecting a fault of one class, and this machine as a source.
#pragma once

#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include <fundix/Exception.h>
#include <fundix/Ref.h>
#include <morphel/params/types.h>
#include <morphel/server/conversion/types.h>
#include <morphel/types.h>

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

// The machine the tests run on, as a live source the service accepts.
inline Fundix::Ref<Morphel::ComputerSpec> ThisMachine() {
    char host[256] = {};
    gethostname(host, sizeof(host) - 1);
    return new Morphel::ComputerSpec(Fundix::Ref<Morphel::ComputerSpec::LiveComputerLocation>(
        new Morphel::ComputerSpec::LiveComputerLocation(host, {}, {}, {}, "linux", {}, {})).Get());
}

// A job `name` converting this machine with default parameters.
inline Fundix::Ref<Morphel::Server::Conversion::ConversionJobSpec> JobSpecOfThisMachine(const std::string& name) {
    Fundix::Ref<Morphel::Server::Conversion::ConversionJobSpec> spec(new Morphel::Server::Conversion::ConversionJobSpec());
    spec->SetName(name);
    spec->SetSource(ThisMachine().Get());
    spec->SetConversionParams(Fundix::Ref<Morphel::Params::ConversionParams>(new Morphel::Params::ConversionParams()).Get());
    return spec;
}
