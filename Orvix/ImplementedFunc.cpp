#include "Orvix/ImplementedFunc.hpp"

#include "Orvix/internal/StartupOrder.hpp"

namespace zu {

ImplementedFunc::~ImplementedFunc() = default;

std::mutex ImplementedFunc::mu;
std::set<std::string> ImplementedFunc::allImplemented
    ORVIX_INIT_PRIORITY(ORVIX_INIT_IMPLEMENTED);

}  // namespace zu
