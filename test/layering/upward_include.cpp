// Compiled with the FIB model layer's include path: the route record below
// it is found, the shared-memory MFIB's route tables above it are not.
#include "shmfib/Route.h"
#include "shmfib/RouteTable.h"
