// The simulated drives used when the firmware runs on an ordinary Linux host.
//
// A zufs::DriveVm is a record that clients fill with init and query; it does no file-system
// work. Its root directory comes from the process-wide zufsvm::DrivePathManager, built when the
// library is loaded, which maps each letter 'A'..'Z' to
// "/home/user/simulatedPrinter/drives/<letter>/". zufs::ZUFSFactoryVm makes DriveVm objects and
// is the process-wide zufs::ZUFSFactory::I.
//
// init must happen before a drive is shared; afterwards any thread may read it, and the current
// directory may be got and set from several threads (under the drive's own mutex, whose failure
// throws std::system_error). Nothing here prints or aborts.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "zufs/Drive.hpp"

namespace zufs {

class DriveVm : public Drive {
 public:
  // Letter 0, type and status 0, empty volume name, use flags 0, empty current directory.
  DriveVm();
  ~DriveVm() override;

  // Stores the five values; the current directory stays as it is.
  void init(char letter, Type type, Status status, const std::string& volumeName,
            int useFlags) override;
  char getLetter() const override;
  Type getType() const override;
  Status getStatus() const override;
  const std::string& getVolumeName() const override;
  // The path manager's directory of the letter; an empty text for a letter outside 'A'..'Z'.
  const std::string& getRootPath() const override;
  int getUseFlags() const override;
  // A simulated drive is always mounted and formatted, whatever its status says.
  bool isMounted() const override;
  bool isFormatted() const override;
  // The current directory is stored as given, never checked or normalised.
  void getCurDir(std::string& out) override;
  void setCurDir(const std::string& dir) override;

 private:
  char letter;             // set by init
  Type type;               // set by init
  Status status;           // set by init
  std::string volumeName;  // set by init
  int useFlags;            // set by init
  std::string curDir;      // guarded by curDirMutex
  std::mutex curDirMutex;
};

// Makes simulated drives.
class ZUFSFactoryVm : public ZUFSFactory {
 public:
  ZUFSFactoryVm() = default;
  ~ZUFSFactoryVm() override;

  // new DriveVm(), owned by the caller.
  Drive* drive() override;
};

}  // namespace zufs

namespace zufsvm {

// The host directory of every drive letter. Read-only once built.
class DrivePathManager {
 public:
  // Maps 'A'..'Z' to rootDir followed by the letter and "/".
  DrivePathManager();
  virtual ~DrivePathManager();
  DrivePathManager(const DrivePathManager&) = delete;
  DrivePathManager& operator=(const DrivePathManager&) = delete;

  // The directory of letter; for a letter outside 'A'..'Z' (lower case included) an empty text.
  const std::string& path(char letter) const;

 private:
  const std::string rootDir;          // "/home/user/simulatedPrinter/drives/"
  std::map<char, std::string> paths;  // written only by the constructor
};

}  // namespace zufsvm
