#include "platform/services.h"

#include <mutex>

namespace sonorell {

std::shared_ptr<const Services> Services::system() {
  static std::once_flag once;
  static const std::shared_ptr<const Services>* services = nullptr;
  std::call_once(once, [] {
    auto made = std::make_shared<Services>();
    made->clock = Clock::current();
    made->http = HttpClient::shared();
    made->transfers = TransferService::shared();
    made->reachability = Reachability::shared();
    made->files = FileSystem::shared();
    made->audioSession = AudioSession::sharedInstance();
    made->players = [] { return QueuePlayer::create(); };
    services = new std::shared_ptr<const Services>(std::move(made));
  });
  return *services;
}

std::shared_ptr<Services> Services::systemCopy() { return std::make_shared<Services>(*system()); }

}  // namespace sonorell
