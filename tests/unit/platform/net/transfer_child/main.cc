// The child process of the process-death tests (see transfer_resume_test.cc for its arguments):
// starts one transfer in the session the parent names, reports its events on descriptor 3 and never
// returns on its own: the parent kills it.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "platform/foundation/library_directory.h"
#include "platform/net/transfer_service.h"

namespace {

using namespace sonorell;

void report(const std::string& line) {
  std::string text = line + "\n";
  [[maybe_unused]] ssize_t n = ::write(3, text.data(), text.size());
}

class ReportingDelegate : public TransferSessionDelegate {
 public:
  // mode "1": dies in didFinishDownloadingToURL before handling the file; "2": after moving it
  // away (as the engine moves a chapter into place) but before anything else is recorded.
  explicit ReportingDelegate(std::string mode) : mode_(std::move(mode)) {}
  void didWriteData(const TransferSessionPtr&, const TransferTaskPtr&, int64_t, int64_t total,
                    int64_t) override {
    report("bytes " + std::to_string(total));
  }
  void didFinishDownloadingToURL(const TransferSessionPtr&, const TransferTaskPtr&,
                                 const std::filesystem::path& location) override {
    if (mode_ == "2") {
      std::error_code ec;
      std::filesystem::rename(location, location.string() + ".moved-away", ec);
    }
    report("finished " + location.string());
    // Dies here, in the parent's hands.
    while (mode_ != "0") ::pause();
  }
  void didCompleteWithError(const TransferSessionPtr&, const TransferTaskPtr&,
                            ErrorPtr error) override {
    report(error ? "failed " + error->description() : "completed");
  }

 private:
  const std::string mode_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) {
    std::fprintf(stderr, "transfer_child: run only by the transfer tests\n");
    return 2;
  }
  LibraryDirectory::setPath(argv[1]);
  TransferSessionConfiguration config;
  config.identifier = argv[4];
  config.caBundle = argv[3];
  auto delegate = std::make_shared<ReportingDelegate>(argv[6]);
  auto session = TransferService::shared()->sessionWithConfiguration(config, delegate);
  TransferRequest request;
  request.url = argv[2];
  auto task = session->downloadTask(request);
  task->setTaskDescription(argv[5]);
  task->resume();
  report("started");
  for (;;) ::pause();
}
