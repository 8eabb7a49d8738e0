// Umbrella header: every public header of the library.
#pragma once

#include "Orvix/CppBlockingQueue.hpp"
#include "Orvix/CppCapacityControl.hpp"
#include "Orvix/CppFastAllocator.hpp"
#include "Orvix/CppNonlockingPool.hpp"
#include "Orvix/CppPthread.hpp"
#include "Orvix/CppTimeCollector.hpp"
#include "Orvix/GeneralException.hpp"
#include "Orvix/ImplementedFunc.hpp"
#include "Orvix/Locale.hpp"
#include "Orvix/LogGroups.hpp"
#include "Orvix/NotYetImplemented.hpp"
#include "Orvix/OrvixAssert.hpp"
#include "Orvix/SafeLinuxCalls.hpp"
#include "Orvix/Startup.hpp"
#include "Orvix/ThreadKey.hpp"
#include "Orvix/ThreadSafeStream.hpp"
