// orvix::CapacityControl: a named budget counter of whole units (bytes, entries, jobs).
//
// Growth past the capacity and shrinkage below zero are refused with a util::GeneralException
// whose text names the counter and the numbers; the counter keeps its last valid value. A
// negative argument is a programming error (assertion, abort). No lock: users of a shared
// instance guard it themselves.
#pragma once

#include <memory>
#include <string>

namespace orvix {

class CapacityControl {
 public:
  // A counter named name (used in the overflow message) with the given capacity and initial
  // size; the size is taken as given.
  static std::shared_ptr<CapacityControl> create(std::string name, int capacity, int size);

  virtual ~CapacityControl();
  // Adds sizeIncrement (>= 0); reaching the capacity exactly is allowed.
  virtual void increaseSize(int sizeIncrement) = 0;
  // Subtracts sizeDecrement (>= 0); reaching zero is allowed.
  virtual void decreaseSize(int sizeDecrement) = 0;
};

class CapacityControlImpl : public CapacityControl {
 public:
  CapacityControlImpl(std::string name, int capacity, int size);
  ~CapacityControlImpl() override;

  void increaseSize(int sizeIncrement) override;
  void decreaseSize(int sizeDecrement) override;

  int getSize() const { return size; }
  int getCapacity() const { return capacity; }

 private:
  const std::string name;
  const int capacity;
  int size;
};

}  // namespace orvix
