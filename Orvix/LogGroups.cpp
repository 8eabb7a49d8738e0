#include "Orvix/LogGroups.hpp"

namespace orvix {
namespace logGroups {
namespace {

const char kNoname[] = "Noname";
const char kOrvix[] = "Orvix";
const char kCoreDump[] = "CppCoreDump";

}  // namespace

// Both sections carry the same table; the logging library reads whichever it knows.
__attribute__((section("LogGroups"), used)) const char* gl_logGroups[kEntryCount] = {
    kNoname, kNoname, kOrvix,  kCoreDump, kNoname, kNoname, kNoname, kNoname,
    kNoname, kNoname, kOrvix,  kNoname,   kNoname, kNoname, kOrvix,  kNoname};

__attribute__((section("LogGroupsA"), used)) const char* gl_logGroupsA[kEntryCount] = {
    kNoname, kNoname, kOrvix,  kCoreDump, kNoname, kNoname, kNoname, kNoname,
    kNoname, kNoname, kOrvix,  kNoname,   kNoname, kNoname, kOrvix,  kNoname};

}  // namespace logGroups
}  // namespace orvix
