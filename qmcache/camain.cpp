// The exported CA_ calls, the library's global state and the trace log.
#include "qmcache/qmcache.hpp"

// The threading mode comes first: the lock classes read it from load time on.
int SingleThreaded = 0;
CAStatistic* MainStat = nullptr;
Trace* trace = nullptr;
CAFreeHandle free_handle = nullptr;
CAFree* cafree = nullptr;
