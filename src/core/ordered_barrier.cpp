#include "zeptick/ordered_barrier.h"

namespace zeptick {

OrderedBarrier::OrderInstance::OrderInstance(OrderedBarrier* barrier, uint64_t ticket)
    : barrier(barrier), ticket(ticket) {}

OrderedBarrier::OrderInstance::~OrderInstance() {
  if (owns_turn) release();
}

void OrderedBarrier::OrderInstance::sync() {
  barrier->obtain(ticket);
  owns_turn = true;
}

void OrderedBarrier::OrderInstance::release() {
  owns_turn = false;
  barrier->release(ticket);
}

OrderedBarrier::OrderInstance OrderedBarrier::queue() { return OrderInstance(this, next_ticket++); }

void OrderedBarrier::waitUntilFinished() {
  std::unique_lock<std::mutex> lock(mutex);
  condition.wait(lock, [this] { return serving == next_ticket; });
}

void OrderedBarrier::obtain(uint64_t ticket) {
  std::unique_lock<std::mutex> lock(mutex);
  condition.wait(lock, [this, ticket] { return serving == ticket; });
  // The mutex stays held until release(): it is the guard of the ordered stage.
  lock.release();
}

void OrderedBarrier::release(uint64_t /*ticket*/) {
  ++serving;
  mutex.unlock();
  condition.notify_all();
}

}  // namespace zeptick
