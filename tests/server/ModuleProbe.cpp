// A client that links the library by import, so that its attach and detach run
// as a static load: before main and at process exit.
#include <xkcombsd/Module.h>

int main() { return QvDllGetVersion(nullptr) == QV_DLLVERSION_HIGH ? 0 : 1; }
