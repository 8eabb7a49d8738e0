#include "Orvix/ImplementedFunc.hpp"

#include "Orvix/StartupOrder.hpp"

namespace zu {

ImplementedFunc::~ImplementedFunc() = default;

std::mutex ImplementedFunc::mu;
std::set<std::string> ImplementedFunc::allImplemented
    __attribute__((init_priority(ORVIX_INIT_IMPLEMENTED)));

}  // namespace zu
