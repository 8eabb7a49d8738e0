// Log groups: how the library's units write to the controller's logging library.
//
// The library publishes one log-group name per source unit in two writable data sections,
// "LogGroups" and "LogGroupsA" (sixteen pointer-sized entries each, the same values in both),
// for the logging library to find. A unit that logs keeps a LogUnit: its entry, its source path
// and a cached group id that starts as 0xFFFFFFFF (unknown) and holds whatever ZU_Log_Printf
// returned for the unit's last message.
//
// logMessage never throws. It takes no lock of this library; the cached id is a plain word, and
// a race on it only costs the logging library a second name look-up.
#pragma once

#include <cstdint>

#include "ZuLog.h"

namespace orvix {
namespace logGroups {

constexpr int kEntryCount = 16;

// Entry numbers, one per unit that includes the logging declarations, in link order.
enum Entry : int {
  kBitmaps = 0,
  kCountingSemaphore = 1,
  kCppBitStream = 2,  // "Orvix"
  kCppCoreDump = 3,   // "CppCoreDump"
  kCppDataIO = 4,
  kCppLimitedBuffer = 5,
  kCppLinuxTimer = 6,
  kCppMystring = 7,
  kCppPthread = 8,
  kCppRemovePathDots = 9,
  kCppSocket = 10,  // "Orvix"
  kCppSyncLockGroup = 11,
  kLinuxPipe = 12,
  kScanDir = 13,
  kSqlite3cpp = 14,  // "Orvix"
  kThread = 15,
};

// The two sections' arrays (writable on purpose: they belong to the logging library's reader).
extern const char* gl_logGroups[kEntryCount];
extern const char* gl_logGroupsA[kEntryCount];

// Per-unit logging state.
struct LogUnit {
  const Entry entry;
  const char* const sourceFile;   // "Orvix/CppCoreDump", ...
  uint32_t cachedId = 0xFFFFFFFFu;  // written without a lock, see above
};

// Writes one message of unit u at source line `line`, unless the logging library's loaded
// configuration switches the unit's group off. format ends in "\n".
template <class... Args>
void logMessage(LogUnit& u, int line, const char* format, Args... args) {
  const uint32_t id = u.cachedId;
  if (gl_bROLConfigLoaded != 0 && id < ZU_LOG_GROUP_COUNT &&
      gl_psZuLogGrpCfgTable[id].switchedOn == 0)
    return;
  u.cachedId = static_cast<uint32_t>(
      ZU_Log_Printf(id, gl_logGroups[u.entry], 1, 1, 1, 0, u.sourceFile, line, format, args...));
}

}  // namespace logGroups
}  // namespace orvix
