// Links between the library's own modules that are not part of the
// exported interface.
#ifndef QMCACHE_CAINTERNAL_H
#define QMCACHE_CAINTERNAL_H

class CACache;

// Called by a cache's destructor once its tree is gone: every record of the
// cache that left its tree while held, and is still alive, forgets the cache,
// so that its last release updates no destroyed cache.
void OrphanDetachedRecords(CACache* cache);

#endif  // QMCACHE_CAINTERNAL_H
