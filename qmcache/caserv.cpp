#include "qmcache/qmcache.hpp"
