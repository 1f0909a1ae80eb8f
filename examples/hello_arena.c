/* hello_arena: create an arena, write a block, commit, reopen, read it back.
 *   hello_arena DIR */
#include <stdio.h>
#include <string.h>

#include <qwvm/qwvm.h>

static int fail(const char *what) {
  fprintf(stderr, "%s failed:\n%s\n", what, QWErrorMessage()); /* innermost failure first */
  return 1;
}

int main(int argc, char **argv) {
  const char *dir = argc > 1 ? argv[1] : "hello-arena";
  PageCache *cache = PageCacheNew(8 << 20, 8192); /* one per process */
  VMArena *arena = VMArenaOpen(dir, VM_FLAG_CREATE, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL, NULL, cache);
  if (!arena) return fail("VMArenaOpen");

  uint32_t size = 0;
  uint64_t id = VMArenaBlockNew(arena, 0, 100, &size, 0); /* a 112-byte block */
  char *bytes = VMArenaDataAcquire(arena, id, 0, NEWGEN, 0, &size, NULL);
  if (!bytes) return fail("VMArenaDataAcquire");
  strcpy(bytes, "hello, arena");
  VMArenaDataRelease(arena, id, 0, bytes, 0, 0);
  if (!VMArenaCommit(arena, NULL, NULL, 0)) return fail("VMArenaCommit");
  VMArenaClose(arena);

  arena = VMArenaOpen(dir, 0, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL, NULL, cache);
  if (!arena) return fail("VMArenaOpen");
  bytes = VMArenaDataAcquire(arena, id, 0, OLDGEN, 1, &size, NULL); /* the committed generation */
  if (!bytes) return fail("VMArenaDataAcquire");
  printf("block 0x%llx (%u bytes): %s\n", (unsigned long long)id, size, bytes);
  VMArenaDataRelease(arena, id, 1, bytes, 0, 0);
  VMArenaClose(arena);
  PageCacheFree(cache);
  return 0;
}
