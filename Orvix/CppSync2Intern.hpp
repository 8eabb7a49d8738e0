// The allocation-free core of pooled, lock-group-protected queues: elements owned by a pool,
// chained in intrusive singly linked fifos, moved between fifos in whole ranges without copying,
// and handed back to their pool when done.
//
// Nothing here locks. Every fifo and pool change must happen under the lock group that protects
// them; operations that return elements to a pool take the caller's orvix::sync::Guard& as proof.
// Broken links (a pushed element still linked, an element without pool, an inconsistent fifo) are
// assertion failures that abort the process.
#pragma once

#include "Orvix/CppSyncLockGroup.hpp"

namespace orvix {
namespace sync2 {
namespace intern {

class Element;

// Owner of elements; concrete pools define how an element comes back.
class Pool {
 public:
  virtual ~Pool();
  // Takes e back; called under the group g proves to be held.
  virtual void takeBack(orvix::sync::Guard& g, Element* e) = 0;
};

// The links every pooled element carries; concrete element types add their payload.
class Element {
 public:
  explicit Element(Pool* pool = nullptr) : pool(pool), next(nullptr) {}
  virtual ~Element();

  // Hands this element back to its pool (which must be set).
  void goBackToPool(orvix::sync::Guard& g);

  Pool* pool;     // not owned
  Element* next;  // successor in the fifo this element is in; null when last or in none
};

// An intrusive fifo of elements; it owns none of them.
class Fifo {
 public:
  Fifo() : head(nullptr), tail(nullptr) {}
  virtual ~Fifo();
  Fifo(const Fifo&) = delete;
  Fifo& operator=(const Fifo&) = delete;

  // head is null exactly when tail is null.
  bool dbgInvariant() const;

  // Appends e, which must not be linked.
  void pushBack(Element* e);
  // Unlinks and returns the first element; null when empty.
  Element* popFront();
  // Moves the chain after beforeFrom (from head when null) up to and including fromUntilThis
  // into target behind afterThis (at its front when null). Constant time: nothing is walked.
  // target may be this fifo only when afterThis lies outside the moved chain.
  void moveRange(Element* beforeFrom, Element* fromUntilThis, Fifo& target, Element* afterThis);
  // Returns every element, front first, to its pool.
  void allBackToPools(orvix::sync::Guard& g);

  Element* head;
  Element* tail;
};

// Holds one element taken from its pool under guard; gives it back when destroyed.
class PoolAccess {
 public:
  PoolAccess(orvix::sync::Guard& guard, Element* element) : guard(guard), element(element) {}
  // Takes the element; the source is left empty.
  PoolAccess(PoolAccess&& other) noexcept;
  // Swaps the elements; each handle keeps its own guard.
  PoolAccess& operator=(PoolAccess&& other) noexcept;
  PoolAccess(const PoolAccess&) = delete;
  PoolAccess& operator=(const PoolAccess&) = delete;
  // Returns the element, if any, to its pool; an exception there ends the process.
  virtual ~PoolAccess();

  Element* get() const { return element; }

 private:
  orvix::sync::Guard& guard;
  Element* element;
};

}  // namespace intern
}  // namespace sync2
}  // namespace orvix
