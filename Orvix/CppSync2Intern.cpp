#include "Orvix/CppSync2Intern.hpp"

#include <utility>

#include "Orvix/OrvixAssert.hpp"

namespace orvix {
namespace sync2 {
namespace intern {

namespace {
constexpr const char* kUnit = "Orvix/CppSync2Intern";
}  // namespace

Pool::~Pool() = default;

Element::~Element() = default;

void Element::goBackToPool(orvix::sync::Guard& g) {
  ORVIX_ASSERT(pool, "pool", kUnit, 187);
  pool->takeBack(g, this);
}

Fifo::~Fifo() = default;

bool Fifo::dbgInvariant() const { return (head == nullptr) == (tail == nullptr); }

void Fifo::pushBack(Element* e) {
  ORVIX_ASSERT(!e->next, "!e->next", kUnit, 66);
  if (!head) {
    head = e;
    tail = e;
  } else {
    tail->next = e;
    tail = e;
  }
  ORVIX_ASSERT(dbgInvariant(), "dbgInvariant()", kUnit, 74);
}

Element* Fifo::popFront() {
  if (!head) return nullptr;
  Element* const e = head;
  head = e->next;
  if (!head) tail = nullptr;
  e->next = nullptr;
  ORVIX_ASSERT(dbgInvariant(), "dbgInvariant()", kUnit, 99);
  return e;
}

void Fifo::moveRange(Element* beforeFrom, Element* fromUntilThis, Fifo& target,
                     Element* afterThis) {
  ORVIX_ASSERT(fromUntilThis, "fromUntilThis", kUnit, 119);
  Element* const first = beforeFrom ? beforeFrom->next : head;
  Element* const rest = fromUntilThis->next;
  if (beforeFrom) {
    beforeFrom->next = rest;
    if (!rest) tail = beforeFrom;
  } else {
    head = rest;
    if (!rest) tail = nullptr;
  }
  if (afterThis) {
    fromUntilThis->next = afterThis->next;
    afterThis->next = first;
  } else {
    fromUntilThis->next = target.head;
    target.head = first;
  }
  if (!fromUntilThis->next) target.tail = fromUntilThis;
  // Only this fifo is checked; the caller vouches for target.
  ORVIX_ASSERT(dbgInvariant(), "dbgInvariant()", kUnit, 182);
}

void Fifo::allBackToPools(orvix::sync::Guard& g) {
  while (head) {
    Element* const e = popFront();
    ORVIX_ASSERT(e, "e", kUnit, 106);  // cannot fail with head set; the contract keeps it
    e->goBackToPool(g);
  }
  ORVIX_ASSERT(dbgInvariant(), "dbgInvariant()", kUnit, 110);
}

PoolAccess::PoolAccess(PoolAccess&& other) noexcept : guard(other.guard), element(other.element) {
  other.element = nullptr;
}

PoolAccess& PoolAccess::operator=(PoolAccess&& other) noexcept {
  std::swap(element, other.element);
  return *this;
}

PoolAccess::~PoolAccess() {
  if (element) element->goBackToPool(guard);
}

}  // namespace intern
}  // namespace sync2
}  // namespace orvix
