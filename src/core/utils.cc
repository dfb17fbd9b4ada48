#include "sonorell/utils.h"

#include "sonorell/main_queue.h"

#include "platform/dispatch/dispatch_queue.h"
#include "platform/foundation/uuid.h"

namespace sonorell {

std::string QSOUtils::generateUUID() { return makeUUIDString(); }

bool QSOUtils::validateStringParam(const std::optional<std::string>& value) {
  return value.has_value() && !value->empty();
}

bool QSOUtils::validateStringParam(const std::string* value) {
  return value != nullptr && !value->empty();
}

void QSORunOnMainThreadSync(const std::function<void()>& block) {
  if (DispatchQueue::isMainThread()) {
    block();
  } else {
    DispatchQueue::main()->sync(block);
  }
}

void QSORunOnMainThreadAsync(std::function<void()> block) {
  if (DispatchQueue::isMainThread()) {
    block();
  } else {
    DispatchQueue::main()->async(std::move(block));
  }
}

void QSORunMainQueue() { DispatchQueue::runMain(); }

void QSOStopMainQueue() { DispatchQueue::stopMain(); }

size_t QSOPumpMainQueue() { return DispatchQueue::pumpMain(); }

bool QSOIsMainThread() { return DispatchQueue::isMainThread(); }

}  // namespace sonorell
