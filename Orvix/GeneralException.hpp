// The library's exceptions and the builder of their messages.
//
// util::GeneralException is what a failed system call becomes at run time. Constructing one
// prints a warning line on standard output (the library's trace of every runtime error, even of
// errors that are caught and handled) unless it is made silent or defaultSilent is set.
// util::GeneralExceptionThrower assembles the message "<error name> <suffix>" from the error
// number of the failed call and the names the call site lists, and then throws it or writes it
// to a stream (the form used by destructors, which never throw).
//
// All classes are reentrant. defaultSilent is a plain flag: set it once at start-up, before
// other threads run. A thrower lives on one thread's stack for a few statements.
#pragma once

#include <exception>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace util {

// Runtime failure of the operating system or of the library's own bookkeeping.
class GeneralException : public std::exception {
 public:
  // Copies msg. Unless silent or defaultSilent, prints through my_printf:
  //   "[WARN Orvix/GeneralException:65]    Constructing GeneralException with msg <msg>\n"
  explicit GeneralException(const std::string& msg, bool silent = false);
  ~GeneralException() override;

  const char* what() const noexcept override;

  // When true, no GeneralException prints anything at construction. Initially false.
  static bool defaultSilent;

 private:
  // Written once at construction; not const, so that exceptions stay assignable.
  std::string message;
};

// A call made in a state that does not allow it. Prints nothing.
class IllegalStateException : public std::exception {
 public:
  // The message is what + " called in " + where.
  IllegalStateException(const std::string& what, const std::string& where);
  ~IllegalStateException() override;

  const char* what() const noexcept override;

 private:
  std::string message;  // written once at construction; not const, as above
};

// A timed wait whose deadline passed. Silent; what() is the base class text.
class TimedOutException : public std::exception {
 public:
  TimedOutException() = default;
  ~TimedOutException() override;
};

// Builds "<name of errnum> <suffix>" (or "Unexpected errno (<errnum>) <suffix>") and throws it
// as a GeneralException or writes it to a stream.
class GeneralExceptionThrower {
 public:
  explicit GeneralExceptionThrower(int errnum);
  virtual ~GeneralExceptionThrower();
  GeneralExceptionThrower(const GeneralExceptionThrower&) = delete;
  GeneralExceptionThrower& operator=(const GeneralExceptionThrower&) = delete;

  // Writes name when code is errnum and no name was written yet; the first match wins. A null
  // name puts the text stream into its failed state, so nothing more is written to it.
  void handle(int code, const char* name);

  // Writes "Unexpected errno (<errnum>)" when no name was written, then always " " and suffix
  // (a null suffix puts the stream into its failed state).
  void completeMsg(const char* suffix);

  // completeMsg(suffix), then throws GeneralException(text, false).
  [[noreturn]] void throwNow(const char* suffix);

  // completeMsg(suffix), then writes the text, a newline and a flush to out. Never throws on
  // its own account; for destructors.
  void writeNow(const char* suffix, std::ostream& out);

  // The message assembled so far.
  std::string str() const { return text.str(); }

 private:
  std::stringstream text;
  const int errnum;
  bool handled;
};

}  // namespace util

// Thrown by parseNum for text that is not a number.
class ParseException : public std::invalid_argument {
 public:
  explicit ParseException(const std::string& what);
  explicit ParseException(const char* what);
  ~ParseException() override;
};
