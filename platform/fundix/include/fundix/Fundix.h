#pragma once

#include "fundix/Exception.h"
#include "fundix/Functor.h"
#include "fundix/MessageFormatter.h"
#include "fundix/Object.h"
#include "fundix/Optional.h"
#include "fundix/PanicAssert.h"
#include "fundix/Ref.h"
#include "fundix/System/DateTime.h"
#include "fundix/System/ScheduledItem.h"
