#include "zufs/DriveVm.hpp"

#include <memory>

#include "Orvix/internal/Config.hpp"
#include "Orvix/internal/StartupOrder.hpp"

namespace zufsvm {

DrivePathManager::DrivePathManager() : rootDir("/home/user/simulatedPrinter/drives/") {
  for (char letter = 'A'; letter != '['; ++letter) paths[letter] = rootDir + letter + "/";
}

DrivePathManager::~DrivePathManager() = default;

const std::string& DrivePathManager::path(char letter) const {
  static const std::string none;
  const auto found = paths.find(letter);
  return found == paths.end() ? none : found->second;
}

namespace {

// The process-wide manager, built at load before any client code runs.
const DrivePathManager pathManager ORVIX_INIT_PRIORITY(ORVIX_INIT_DRIVE_PATHS);

}  // namespace
}  // namespace zufsvm

namespace zufs {

DriveVm::DriveVm()
    : letter(0), type(static_cast<Type>(0)), status(static_cast<Status>(0)), useFlags(0) {}

DriveVm::~DriveVm() = default;

void DriveVm::init(char newLetter, Type newType, Status newStatus,
                   const std::string& newVolumeName, int newUseFlags) {
  letter = newLetter;
  type = newType;
  status = newStatus;
  volumeName = newVolumeName;
  useFlags = newUseFlags;
}

char DriveVm::getLetter() const { return letter; }
Drive::Type DriveVm::getType() const { return type; }
Drive::Status DriveVm::getStatus() const { return status; }
const std::string& DriveVm::getVolumeName() const { return volumeName; }
const std::string& DriveVm::getRootPath() const { return zufsvm::pathManager.path(letter); }
int DriveVm::getUseFlags() const { return useFlags; }
bool DriveVm::isMounted() const { return true; }
bool DriveVm::isFormatted() const { return true; }

void DriveVm::getCurDir(std::string& out) {
  std::lock_guard<std::mutex> hold(curDirMutex);
  out = curDir;
}

void DriveVm::setCurDir(const std::string& dir) {
  std::lock_guard<std::mutex> hold(curDirMutex);
  curDir = dir;
}

ZUFSFactoryVm::~ZUFSFactoryVm() = default;

Drive* ZUFSFactoryVm::drive() { return new DriveVm(); }

namespace {

// Puts the simulated factory into ZUFSFactory::I at load, last of the library's objects. At
// unload the factory goes; I is cleared unless a client has put its own factory there.
struct FactoryInstance {
  FactoryInstance() : factory(new ZUFSFactoryVm()) { ZUFSFactory::I = factory.get(); }
  ~FactoryInstance() {
    if (ZUFSFactory::I == factory.get()) ZUFSFactory::I = nullptr;
  }
  FactoryInstance(const FactoryInstance&) = delete;
  FactoryInstance& operator=(const FactoryInstance&) = delete;

  const std::unique_ptr<ZUFSFactoryVm> factory;
};

FactoryInstance factoryInstance ORVIX_INIT_PRIORITY(ORVIX_INIT_DRIVE_FACTORY);

}  // namespace
}  // namespace zufs
