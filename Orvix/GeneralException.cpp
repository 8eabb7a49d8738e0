#include "Orvix/GeneralException.hpp"

#include "Orvix/ThreadSafeStream.hpp"

namespace util {

bool GeneralException::defaultSilent = false;

GeneralException::GeneralException(const std::string& msg, bool silent) : message(msg) {
  if (!silent && !defaultSilent) {
    const std::string text = "Constructing GeneralException with msg " + msg + "\n";
    my_printf("[WARN Orvix/GeneralException:65]    %s", text.c_str());
  }
}

GeneralException::~GeneralException() = default;

const char* GeneralException::what() const noexcept { return message.c_str(); }

IllegalStateException::IllegalStateException(const std::string& what, const std::string& where)
    : message(what + " called in " + where) {}

IllegalStateException::~IllegalStateException() = default;

const char* IllegalStateException::what() const noexcept { return message.c_str(); }

TimedOutException::~TimedOutException() = default;

GeneralExceptionThrower::GeneralExceptionThrower(int errnum) : errnum(errnum), handled(false) {}

GeneralExceptionThrower::~GeneralExceptionThrower() = default;

void GeneralExceptionThrower::handle(int code, const char* name) {
  if (handled || code != errnum) return;
  // A null name sets the stream's badbit: that is the documented outcome, not a crash.
  text << name;
  handled = true;
}

void GeneralExceptionThrower::completeMsg(const char* suffix) {
  if (!handled) text << "Unexpected errno (" << errnum << ")";
  text << " " << suffix;
}

void GeneralExceptionThrower::throwNow(const char* suffix) {
  completeMsg(suffix);
  throw GeneralException(text.str(), false);
}

void GeneralExceptionThrower::writeNow(const char* suffix, std::ostream& out) {
  completeMsg(suffix);
  out << text.str() << std::endl;
}

}  // namespace util

ParseException::ParseException(const std::string& what) : std::invalid_argument(what) {}
ParseException::ParseException(const char* what) : std::invalid_argument(what) {}
ParseException::~ParseException() = default;
