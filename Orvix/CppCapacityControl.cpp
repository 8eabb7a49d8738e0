#include "Orvix/CppCapacityControl.hpp"

#include <utility>

#include "Orvix/GeneralException.hpp"
#include "Orvix/OrvixAssert.hpp"

namespace orvix {

namespace {
constexpr const char* kUnit = "Orvix/CppCapacityControl";
}  // namespace

std::shared_ptr<CapacityControl> CapacityControl::create(std::string name, int capacity,
                                                         int size) {
  return std::make_shared<CapacityControlImpl>(std::move(name), capacity, size);
}

CapacityControl::~CapacityControl() = default;

CapacityControlImpl::CapacityControlImpl(std::string name, int capacity, int size)
    : name(std::move(name)), capacity(capacity), size(size) {}

CapacityControlImpl::~CapacityControlImpl() = default;

void CapacityControlImpl::increaseSize(int sizeIncrement) {
  ORVIX_ASSERT(sizeIncrement >= 0, "sizeIncrement >= 0", kUnit, 97);
  if (size + sizeIncrement <= capacity) {
    size += sizeIncrement;
    return;
  }
  throw util::GeneralException("Capacity exceeded in CapacityControl " + name + ": " +
                                   std::to_string(size) + " + " + std::to_string(sizeIncrement) +
                                   " > " + std::to_string(capacity),
                               0);
}

void CapacityControlImpl::decreaseSize(int sizeDecrement) {
  ORVIX_ASSERT(sizeDecrement >= 0, "sizeDecrement >= 0", kUnit, 107);
  if (size >= sizeDecrement) {
    size -= sizeDecrement;
    return;
  }
  // Names the variable after its value; the text has always read so.
  throw util::GeneralException("Illegal argument for CapacityControl::decreaseSize: size = " +
                                   std::to_string(size) + " < " + std::to_string(sizeDecrement) +
                                   " = sizeDecrement",
                               0);
}

}  // namespace orvix
