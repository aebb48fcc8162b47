#include "VerdoDriver/Model/ModelHttp.h"

#include "VerdoDriver/Model/Background.h"
#include "VerdoDriver/Model/MainThread.h"
#include "VerdoDriverCore/Network/CertificateFile.h"

#include <QPointer>
#include <exception>
#include <system_error>
#include <utility>

namespace verdo {
namespace {

constexpr std::chrono::seconds kMaxRequest{60};
constexpr std::size_t kMaxReply = 1 << 20;

}  // namespace

void ModelHttp::send(HttpRequest request, std::chrono::seconds timeout, Completion completion) {
  request.timeout = timeout;
  request.followRedirects = false;
  request.maxBody = kMaxReply;
  if (!proxyFor_) return sendThrough({}, std::move(request), std::move(completion));
  const std::string url = request.url;
  const auto sendOn = [self = QPointer(this), request, completion](const std::string& proxy) {
    if (self) self->sendThrough(proxy, request, completion);
  };
  try {
    runInBackground("verdo.proxy", [proxyFor = proxyFor_, url] { return proxyFor(url); }, sendOn);
  } catch (const std::system_error& error) {
    failLater(completion, std::string("no thread to ask with: ") + error.what());
  }
}

void ModelHttp::failLater(const Completion& completion, const std::string& text) {
  later([completion, text] {
    completion(tl::make_unexpected(TransportError{TransportError::Kind::other, text}));
  });
}

void ModelHttp::sendThrough(const std::string& proxy, HttpRequest request, Completion completion) {
  request.deadline = HttpRequest::Clock::now() + kMaxRequest;
  try {
    if (!session_ || proxy_ != proxy) {
      HttpSession::Options options;
      options.proxy = proxy_ = proxy;
      if (!extraCaCertPath_.empty()) {
        options.caCertificates = loadCertificatesBesideRoots(extraCaCertPath_);
      }
      session_ = std::make_unique<HttpSession>(options);
    }
  } catch (const std::exception& error) {
    failLater(completion, error.what());
    return;
  }
  // The completion is moved along, so that what it holds is let go of on the main thread.
  auto onReply = [self = QPointer<ModelHttp>(this),
                  completion = std::move(completion)](HttpResult result) mutable {
    MainThread::post(
        [self = std::move(self), completion = std::move(completion), result = std::move(result)] {
          if (self) completion(result);
        });
  };
  session_->task(std::move(request), std::move(onReply))->start();
}

void ModelHttp::later(std::function<void()> block) {
  MainThread::post([self = QPointer<ModelHttp>(this), block = std::move(block)] {
    if (self) block();
  });
}

}  // namespace verdo
