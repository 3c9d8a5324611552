// Caches, the registry and access handles; the record operations of a
// handle; listing; the reclamation triggers; the structure check.
#include "qmcache/qmcache.hpp"

// ==== Caches, handles and record operations ==================================

// ==== Structure check =========================================================
