// The lists of property pages an object gives in
// ISpecifyPropertyPages::GetPages: counted arrays of class ids from the task
// allocator, grown by appending.
#pragma once

#include <ocidl.h>
#include <xkcombsd/XKApi.h>

// Appends count ids to the task-allocated array (which may be empty, with a
// NULL array), in order, without looking for duplicates. Count 0: S_FALSE.
// E_FAIL when the array cannot grow, or was not made by the task allocator
// (a broken contract, also reported); the structure is then as it was.
XK_EXTERN_C HRESULT XKAPI AddPropPageIDs(CAUUID* pages, const GUID* ids, ULONG count);  // 61
// AddPropPageIDs with the ids of more, which stays as it is.
XK_EXTERN_C HRESULT XKAPI AddPropPages(CAUUID* pages, const CAUUID* more);  // 62
