// The controller's drive model: lettered drives, the standard drive letter, and the factory
// clients obtain drives from.
//
// zufs::Drive is the abstract drive; zufs::ZUFSFactory::I is the process-wide factory, set when
// the library is loaded (to the simulated factory, zufs/DriveVm.hpp) and never replaced by the
// library. zufs::CurDrive holds the standard drive letter for any number of threads.
//
// Nothing here prints or aborts; a failure to lock a mutex throws std::system_error.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

namespace zufs {

// A lettered drive. Its description is set by init before the drive is shared; only the current
// directory may be used from several threads (implementations guard it).
class Drive {
 public:
  // Kinds of drive; stored and returned, never interpreted by the library (any 32-bit value).
  enum Type : int32_t {
    TYPE_UNKNOWN = 0,
    TYPE_RAM = 1,
    TYPE_FLASH = 2,
    TYPE_HARD_DISK = 3,
    TYPE_USB = 4,
    TYPE_NETWORK = 5,
  };
  // States of a drive; stored and returned, never interpreted by the library (any 32-bit value).
  enum Status : int32_t {
    STATUS_UNKNOWN = 0,
    STATUS_READY = 1,
    STATUS_NOT_READY = 2,
    STATUS_ERROR = 3,
  };

  Drive() = default;
  virtual ~Drive();
  Drive(const Drive&) = delete;
  Drive& operator=(const Drive&) = delete;

  // The operations below keep this order: it is the order of the drive's virtual slots.

  // Describes the drive; useFlags is the caller's bit set.
  virtual void init(char letter, Type type, Status status, const std::string& volumeName,
                    int useFlags) = 0;
  virtual char getLetter() const = 0;
  virtual Type getType() const = 0;
  virtual Status getStatus() const = 0;
  virtual const std::string& getVolumeName() const = 0;
  // The directory the drive's files live in.
  virtual const std::string& getRootPath() const = 0;
  virtual int getUseFlags() const = 0;
  virtual bool isMounted() const = 0;
  virtual bool isFormatted() const = 0;
  // Copies the drive's current directory into out.
  virtual void getCurDir(std::string& out) = 0;
  virtual void setCurDir(const std::string& dir) = 0;

  // Orders by letter, compared as unsigned 8-bit values, through getLetter() of both drives.
  bool operator<(const Drive& other) const;
};

// The standard drive letter of the process ('A' until set); any thread may use it.
class CurDrive {
 public:
  CurDrive();
  virtual ~CurDrive();
  CurDrive(const CurDrive&) = delete;
  CurDrive& operator=(const CurDrive&) = delete;

  void setStdDrive(char letter);
  char getStdDrive();

 private:
  std::mutex mutex;
  char stdDrive;  // guarded by mutex
};

// Where clients obtain drives.
class ZUFSFactory {
 public:
  ZUFSFactory() = default;
  virtual ~ZUFSFactory();
  ZUFSFactory(const ZUFSFactory&) = delete;
  ZUFSFactory& operator=(const ZUFSFactory&) = delete;

  // A new drive in its initial state, owned by the caller.
  virtual Drive* drive() = 0;

  // The process-wide factory: a zufs::ZUFSFactoryVm from library load to unload.
  static ZUFSFactory* I;
};

}  // namespace zufs
