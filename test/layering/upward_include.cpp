// Compiled with the FIB model layer's include path: its own headers are
// found, the shared-memory MFIB's above it are not.
#include "fib/Route.h"
#include "shmfib/RouteTable.h"
