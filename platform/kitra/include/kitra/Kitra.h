// The object model: everything generated code and its users need.
#pragma once

#include <kitra/Any.h>
#include <kitra/Array.h>
#include <kitra/DataObject.h>
#include <kitra/Enum.h>
#include <kitra/Field.h>
#include <kitra/ManagedObject.h>
#include <kitra/MoRef.h>
#include <kitra/Primitive.h>
#include <kitra/Registry.h>
#include <kitra/Stub.h>
#include <kitra/Type.h>
#include <kitra/TypeInfo.h>
