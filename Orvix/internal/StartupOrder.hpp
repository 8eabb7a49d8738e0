// The order in which the library's static objects are built when it is loaded.
//
// Orvix_constructor runs first (the build-interface check), then the library's process-wide
// objects in a fixed order that does not depend on link order. Objects are destroyed in reverse
// at unload. Each number is a GCC init priority: objects are declared with
// ORVIX_INIT_PRIORITY(ORVIX_INIT_...), functions with ORVIX_INIT_FUNCTION(ORVIX_INIT_...)
// (Orvix/internal/Config.hpp). Internal to the library; not installed, so that clients cannot
// come to depend on the numbers.
#pragma once

#include "Orvix/internal/Config.hpp"

#define ORVIX_INIT_BUILD_CHECK 101
// The standard streams and the guard that deletes the thread key after every other object.
#define ORVIX_INIT_STREAMS 102
#define ORVIX_INIT_HEAP 103
#define ORVIX_INIT_LIMITED_BUFFER 104
#define ORVIX_INIT_LOCK_GROUP 105
#define ORVIX_INIT_DRIVE_PATHS 106
#define ORVIX_INIT_IMPLEMENTED 107
#define ORVIX_INIT_THREAD_KEY 108
#define ORVIX_INIT_CONSOLE 109
#define ORVIX_INIT_DRIVE_FACTORY 110
