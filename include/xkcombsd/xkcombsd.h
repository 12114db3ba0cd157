// Every family of the library's exported functions, interfaces and
// identifiers in one include, for C and C++ clients alike. The C++ helper
// templates (MLRelItf.h, ScopedValue.h, auto_buffer.h and the others) are
// included on their own where wanted.
#pragma once

#include <xkcombsd/XKApi.h>

#include <xkcombsd/Collections.h>
#include <xkcombsd/Connections.h>
#include <xkcombsd/DataObject.h>
#include <xkcombsd/Dispatch.h>
#include <xkcombsd/ErrorInfo.h>
#include <xkcombsd/Guids.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/LateBound.h>
#include <xkcombsd/Marshal.h>
#include <xkcombsd/Module.h>
#include <xkcombsd/Persist.h>
#include <xkcombsd/PropertyBag.h>
#include <xkcombsd/PropertyPages.h>
#include <xkcombsd/Registration.h>
#include <xkcombsd/Stores.h>
#include <xkcombsd/Strings.h>
