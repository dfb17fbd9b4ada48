#include "platform/media/resource_loader.h"

#include <string>

#include "platform/media/media_errors.h"
#include "platform/media/media_log.h"

namespace sonorell {
namespace {

ErrorPtr unavailable(const std::string& url) {
  return Error::make(std::string(kMediaErrorDomain), kMediaErrorResourceUnavailable,
                     "No resource loader answered the request for " + url, nullptr);
}

}  // namespace

std::shared_ptr<ResourceLoader> ResourceLoader::create() {
  return std::shared_ptr<ResourceLoader>(new ResourceLoader());
}

void ResourceLoader::setDelegate(std::weak_ptr<ResourceLoaderDelegate> delegate,
                                 DispatchQueuePtr queue) {
  if (!queue && !delegate.expired()) {
    media_log::emit(LogType::Error,
                    "[Media] ResourceLoader::setDelegate called without a delegate queue; the "
                    "delegate is refused");
    delegate.reset();
  }
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
  queue_ = std::move(queue);
}

std::shared_ptr<ResourceLoaderDelegate> ResourceLoader::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

DispatchQueuePtr ResourceLoader::delegateQueue() const {
  std::lock_guard lock(mutex_);
  return queue_;
}

void ResourceLoader::load(const std::shared_ptr<LoadingRequest>& request) {
  DispatchQueuePtr queue = delegateQueue();
  if (!queue) {
    request->finishLoading(unavailable(request->url()));
    return;
  }
  std::weak_ptr<ResourceLoader> weakSelf = weak_from_this();
  queue->async([weakSelf, request] {
    auto self = weakSelf.lock();
    auto delegate = self ? self->delegate() : nullptr;
    if (!delegate) {
      request->finishLoading(unavailable(request->url()));
      return;
    }
    if (request->isCancelled()) return;
    if (!delegate->shouldWaitForLoadingOfRequestedResource(*self, request) &&
        !request->isFinished()) {
      request->finishLoading(unavailable(request->url()));
    }
  });
}

void ResourceLoader::cancel(const std::shared_ptr<LoadingRequest>& request) {
  if (request->isFinished()) return;
  request->cancel();
  DispatchQueuePtr queue = delegateQueue();
  if (!queue) return;
  std::weak_ptr<ResourceLoader> weakSelf = weak_from_this();
  queue->async([weakSelf, request] {
    auto self = weakSelf.lock();
    if (!self) return;
    if (auto delegate = self->delegate()) delegate->didCancelLoadingRequest(*self, request);
  });
}

}  // namespace sonorell
