// SPDX-License-Identifier: MIT
// The owner of every cache's private state: the handle table's heap block,
// which starts with a pointer to the state (see castate.h).
#include "castate.h"

#include <stdlib.h>
#include <string.h>

CACacheAction** NewActionTable(int slots) {
  void** block = static_cast<void**>(calloc(slots + 1, sizeof(void*)));
  block[0] = new CacheState();
  return reinterpret_cast<CACacheAction**>(block + 1);
}

CACacheAction** GrowActionTable(CACacheAction** table, int oldSlots,
                                int slots) {
  void** block = reinterpret_cast<void**>(table) - 1;
  block = static_cast<void**>(
      realloc(block, (oldSlots + slots + 1) * sizeof(void*)));
  memset(block + 1 + oldSlots, 0, slots * sizeof(void*));
  return reinterpret_cast<CACacheAction**>(block + 1);
}

void FreeActionTable(CACacheAction** table) {
  if (table == nullptr) return;
  void** block = reinterpret_cast<void**>(table) - 1;
  delete static_cast<CacheState*>(block[0]);
  free(block);
}
