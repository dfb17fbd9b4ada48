// A delegate overrides only the events it wants; the others do nothing.
#include "platform/net/transfer_delegate.h"

namespace sonorell {

void TransferSessionDelegate::didWriteData(const std::shared_ptr<TransferSession>&,
                                           const std::shared_ptr<TransferTask>&, int64_t, int64_t,
                                           int64_t) {}
void TransferSessionDelegate::didFinishDownloadingToURL(const std::shared_ptr<TransferSession>&,
                                                        const std::shared_ptr<TransferTask>&,
                                                        const std::filesystem::path&) {}
void TransferSessionDelegate::didCompleteWithError(const std::shared_ptr<TransferSession>&,
                                                   const std::shared_ptr<TransferTask>&, ErrorPtr) {
}
void TransferSessionDelegate::didFinishEventsForBackgroundURLSession(
    const std::shared_ptr<TransferSession>&) {}

}  // namespace sonorell
