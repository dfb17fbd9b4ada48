// For tests that change the process-wide CA bundle: restores the previous one when the scope
// ends, even after a failed assertion. Used from the test's thread only.
#pragma once

#include <string>

#include "platform/net/curl_loop.h"

namespace sonorell::testing {

class DefaultCABundleGuard {
 public:
  DefaultCABundleGuard() : saved_(defaultCABundle()) {}
  ~DefaultCABundleGuard() { setDefaultCABundle(saved_); }
  DefaultCABundleGuard(const DefaultCABundleGuard&) = delete;
  DefaultCABundleGuard& operator=(const DefaultCABundleGuard&) = delete;

 private:
  const std::string saved_;
};

}  // namespace sonorell::testing
