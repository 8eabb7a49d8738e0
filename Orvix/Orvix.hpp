// Umbrella header: every public header of the library.
#pragma once

#include "Orvix/CountingSemaphore.hpp"
#include "Orvix/GeneralException.hpp"
#include "Orvix/ImplementedFunc.hpp"
#include "Orvix/InitCondVar.hpp"
#include "Orvix/Locale.hpp"
#include "Orvix/LogGroups.hpp"
#include "Orvix/NotYetImplemented.hpp"
#include "Orvix/OrvixAssert.hpp"
#include "Orvix/RecursiveMutex.hpp"
#include "Orvix/SafeLinuxCalls.hpp"
#include "Orvix/Startup.hpp"
#include "Orvix/TestUtil.hpp"
#include "Orvix/Thread.hpp"
#include "Orvix/ThreadKey.hpp"
#include "Orvix/ThreadSafeStream.hpp"
#include "Orvix/TimeSpec.hpp"
