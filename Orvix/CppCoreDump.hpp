// Core dumps of the running process that do not stop it.
//
// run forks; the child raises its core-size limit, makes and enters "/data/coreDumps/" + subdir
// and aborts, so the kernel writes the child's core (the parent's memory at the fork) there, as
// the system's core pattern says. The parent goes on at once: a background task prints
// "[INFO Orvix/CppCoreDump:86]    CORE DUMP..." on standard output (my_printf), reaps the child
// and prints "[INFO Orvix/CppCoreDump:91]    CORE DUMP done."; its future is kept by
// orvix::easyAsyncIntern::storeFuture. Several dumps may run at once.
//
// Any thread may call run. Failures of fork, waitpid and chdir are written to the logging
// library under the group "CppCoreDump" (unless its loaded configuration switches the group off)
// and end only the dump: after a failed chdir the child aborts where it is. If the waiting task
// cannot be started, run throws std::system_error and the child stays unreaped.
#pragma once

namespace orvix {
namespace coredump {

// Raises RLIMIT_CORE (soft and hard) to unlimited for the calling process and prints
// "rlim_max=-1". A failure is reported by perror ("Could not get RLIMIT_CORE\n",
// "Could not set RLIMIT_CORE\n") and ends the process with exit(1); raising a finite hard limit
// needs CAP_SYS_RESOURCE.
void prepare();

// Dumps core into "/data/coreDumps/" followed by subdir (null means none), which should end in
// "/". The directory is made with "mkdir -p <directory>" through the shell, so subdir holds no
// blanks or shell characters. The child prints prepare's line ("rlim_max=-1"); when it cannot
// raise its limit it prints prepare's error and ends with status 1 (through _exit: the parent's
// exit handlers are not the child's to run). Returns at once.
void run(const char* subdir);

}  // namespace coredump
}  // namespace orvix
