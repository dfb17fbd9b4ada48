// The bridge between a player item and the object that supplies its bytes. The item owns its
// loader; the loader holds its delegate weakly (whoever made the delegate keeps it alive) and
// calls it only on the delegate's queue. Guarded by the loader's own mutex.
#pragma once

#include <memory>
#include <mutex>

#include "platform/dispatch/dispatch_queue.h"
#include "platform/media/loading_request.h"

namespace sonorell {

class ResourceLoader;

class ResourceLoaderDelegate {
 public:
  virtual ~ResourceLoaderDelegate() = default;
  // True when the delegate will answer the request (now or later). False declines it; a
  // declined request that the delegate did not finish fails with kMediaErrorResourceUnavailable.
  virtual bool shouldWaitForLoadingOfRequestedResource(
      ResourceLoader& loader, const std::shared_ptr<LoadingRequest>& request) = 0;
  // The player no longer needs the request; answers to it are ignored from now on.
  virtual void didCancelLoadingRequest(ResourceLoader& /*loader*/,
                                       const std::shared_ptr<LoadingRequest>& /*request*/) {}
};

class ResourceLoader : public std::enable_shared_from_this<ResourceLoader> {
 public:
  static std::shared_ptr<ResourceLoader> create();

  // The delegate is called only on `queue`. A delegate without a queue is refused (logged, and the
  // loader is left without a delegate, so its requests fail); a null delegate clears it.
  void setDelegate(std::weak_ptr<ResourceLoaderDelegate> delegate, DispatchQueuePtr queue);
  std::shared_ptr<ResourceLoaderDelegate> delegate() const;
  DispatchQueuePtr delegateQueue() const;

  // Backend side: hands the request to the delegate on its queue. Without a delegate the request
  // fails with kMediaErrorResourceUnavailable.
  void load(const std::shared_ptr<LoadingRequest>& request);
  // Backend side: marks the request cancelled and tells the delegate on its queue.
  void cancel(const std::shared_ptr<LoadingRequest>& request);

 private:
  ResourceLoader() = default;

  mutable std::mutex mutex_;
  std::weak_ptr<ResourceLoaderDelegate> delegate_;
  DispatchQueuePtr queue_;
};

}  // namespace sonorell
