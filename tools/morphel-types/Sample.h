// Filled sample values of any data object or fault, for tests, seeds and demonstrations.
#pragma once

#include <fundix/Ref.h>
#include <kitra/DataObject.h>
#include <kitra/Soap.h>

namespace MorphelTypesTool {

// An instance of `type` with every property that `codec`'s version includes set: primitives to values
// that exercise the wire form (escaped characters, extremes, fractions), arrays to two items, records to
// filled instances of their declared type (down to a fixed depth, below which only required ones are
// filled). The same property always gets the same value, whatever the version.
Fundix::Ref<Kitra::DataObject> Sample(const Kitra::DataObjectType* type, const Kitra::Soap::Codec& codec);

}  // namespace MorphelTypesTool
