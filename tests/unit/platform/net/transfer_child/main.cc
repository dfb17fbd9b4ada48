// The child process of the process-death tests (see child_process.h): starts one transfer in
// the session the parent names, reports its events on descriptor 3 and never returns on its own:
// the parent kills it.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "../child_process.h"
#include "platform/net/transfer_service.h"

namespace {

using namespace sonorell;
using namespace sonorell::testing;

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

const char* setting(const char* name) {
  const char* value = std::getenv(name);
  if (!value) {
    std::fprintf(stderr, "transfer_child: %s is not set; run only by the transfer tests\n", name);
    std::exit(2);
  }
  return value;
}

}  // namespace

int main() {
  const std::string url = setting(kChildURL);
  TransferSessionConfiguration config;
  config.identifier = setting(kChildSession);
  config.caBundle = setting(kChildCA);
  const std::string description = setting(kChildDescription);
  const char* block = std::getenv(kChildBlockInFinish);
  auto delegate = std::make_shared<ReportingDelegate>(block && std::string(block) == "1");
  auto service = TransferService::shared();  // journal under $SONORELL_LIBRARY_DIR
  auto session = service->sessionWithConfiguration(config, delegate);
  TransferRequest request;
  request.url = url;
  auto task = session->downloadTask(request);
  task->setTaskDescription(description);
  task->resume();
  report("started");
  for (;;) ::pause();
}
