/* Stand-in for the controller's logging library libRoLog.
 *
 * Messages are logged by group. A group is named by its text; the library resolves the name to
 * a small stable id (0..63) on the first message and the caller passes that id back on later
 * messages. gl_psZuLogGrpCfgTable holds one 48-byte record per id whose word at offset 24 says
 * whether the group is switched on; gl_bROLConfigLoaded becomes non-zero once a configuration
 * has been loaded. This stand-in never loads one, so every message is written.
 *
 * ZU_Log_Printf may be called from any thread; it writes one line to standard error:
 *   "[<group>] <file>:<line>: <message>"
 * and returns the group id (-1 when all 64 ids are taken by other names).
 */
#ifndef ORVIX_PLATFORM_ZULOG_H
#define ORVIX_PLATFORM_ZULOG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
  unsigned char head[24];
  unsigned int switchedOn;
  unsigned char tail[20];
} ZuLogGrpCfg; /* 48 bytes */

#define ZU_LOG_GROUP_COUNT 64

extern ZuLogGrpCfg gl_psZuLogGrpCfgTable[ZU_LOG_GROUP_COUNT];
extern int gl_bROLConfigLoaded;

int ZU_Log_Printf(unsigned int grpId, const char* grpName, int, int, int, int, const char* file,
                  int line, const char* format, ...) __attribute__((format(printf, 9, 10)));

#ifdef __cplusplus
}
#endif

#endif
