#include "ZuLog.h"

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

_Static_assert(sizeof(ZuLogGrpCfg) == 48, "a group record is 48 bytes");

ZuLogGrpCfg gl_psZuLogGrpCfgTable[ZU_LOG_GROUP_COUNT];
int gl_bROLConfigLoaded = 0;

/* Group names by id; written under namesLock. */
static const char* names[ZU_LOG_GROUP_COUNT];
static pthread_mutex_t namesLock = PTHREAD_MUTEX_INITIALIZER;

static int resolve(unsigned int grpId, const char* grpName) {
  const char* name = grpName ? grpName : "Noname";
  int id = -1;
  pthread_mutex_lock(&namesLock);
  /* A valid id for the same name is trusted as it is; anything else is looked up again. */
  if (grpId < ZU_LOG_GROUP_COUNT && names[grpId] && strcmp(names[grpId], name) == 0) {
    id = (int)grpId;
  } else {
    for (int i = 0; i < ZU_LOG_GROUP_COUNT; ++i) {
      if (!names[i]) {
        names[i] = strdup(name);
        id = i;
        break;
      }
      if (strcmp(names[i], name) == 0) {
        id = i;
        break;
      }
    }
  }
  pthread_mutex_unlock(&namesLock);
  return id;
}

int ZU_Log_Printf(unsigned int grpId, const char* grpName, int a, int b, int c, int d,
                  const char* file, int line, const char* format, ...) {
  (void)a;
  (void)b;
  (void)c;
  (void)d;
  int id = resolve(grpId, grpName);
  char text[1024];
  va_list ap;
  va_start(ap, format);
  vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  /* One fprintf so that lines of different threads stay whole. */
  size_t n = strlen(text);
  fprintf(stderr, "[%s] %s:%d: %s%s", grpName ? grpName : "Noname", file ? file : "?", line, text,
          (n > 0 && text[n - 1] == '\n') ? "" : "\n");
  return id;
}
