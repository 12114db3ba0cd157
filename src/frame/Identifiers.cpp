// Storage for the library's identifiers.
#include <windows.h>
#include <initguid.h>
#include <xkcombsd/Identifiers.h>
