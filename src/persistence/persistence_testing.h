// Test hooks of the object store's set-up. Process-wide, guarded by a mutex.
#pragma once

#include <functional>

namespace sonorell {

// Called just before a thread other than the main one starts waiting for the store's set-up.
void setStoreSetUpWaitObserverForTesting(std::function<void()> observer);

}  // namespace sonorell
