// The child process of the process-death tests (see child_process.h). Disabled, so it runs only
// when a test starts this binary for it; it reports on descriptor 3 and never returns on its own:
// the parent kills it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "child_process.h"
#include "platform/net/transfer_service.h"

namespace sonorell::testing {
namespace {

void report(const std::string& line) {
  std::string text = line + "\n";
  [[maybe_unused]] ssize_t n = ::write(3, text.data(), text.size());
}

class ReportingDelegate : public TransferSessionDelegate {
 public:
  explicit ReportingDelegate(bool blockInFinish) : blockInFinish_(blockInFinish) {}
  void didWriteData(const TransferSessionPtr&, const TransferTaskPtr&, int64_t, int64_t total,
                    int64_t) override {
    report("bytes " + std::to_string(total));
  }
  void didFinishDownloadingToURL(const TransferSessionPtr&, const TransferTaskPtr&,
                                 const std::filesystem::path& location) override {
    report("finished " + location.string());
    // Dies here, in the parent's hands, before the file is handled.
    while (blockInFinish_) ::pause();
  }
  void didCompleteWithError(const TransferSessionPtr&, const TransferTaskPtr&,
                            ErrorPtr error) override {
    report(error ? "failed " + error->description() : "completed");
  }

 private:
  const bool blockInFinish_;
};

TEST(TransferChild, DISABLED_Run) {
  const char* url = std::getenv(kChildURL);
  if (!url) GTEST_SKIP() << "runs only as the child of a process-death test";
  auto service = TransferService::shared();  // journal under $SONORELL_LIBRARY_DIR
  const char* block = std::getenv(kChildBlockInFinish);
  auto delegate = std::make_shared<ReportingDelegate>(block && std::string(block) == "1");
  TransferSessionConfiguration config;
  config.identifier = std::getenv(kChildSession);
  config.caBundle = std::getenv(kChildCA);
  auto session = service->sessionWithConfiguration(config, delegate);
  TransferRequest request;
  request.url = url;
  auto task = session->downloadTask(request);
  task->setTaskDescription(std::getenv(kChildDescription));
  task->resume();
  report("started");
  for (;;) ::pause();
}

}  // namespace
}  // namespace sonorell::testing
