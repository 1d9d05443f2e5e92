// Within the library: the field layout of the class that declares a record's properties, for code that
// reads many fields in a row (the SOAP reader) and would otherwise pay a checked cast per field.
#pragma once

#include <kitra/DataObject.h>
#include <kitra/Field.h>
#include <kitra/TypeInfo.h>

namespace Kitra::Fields {

// The layout behind `record`'s property functions, learned once per record by asking them on `object`
// (an instance of the declaring class or of a class derived from it). Null when they do not tell, or when
// the declaring class's part of `object` does not start where `object` does; the caller then goes
// through the property functions.
const FieldLayout* LayoutOf(const DataTypeInfo* record, DataObject* object);

}  // namespace Kitra::Fields
