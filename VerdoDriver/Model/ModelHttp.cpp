#include "VerdoDriver/Model/ModelHttp.h"

#include "VerdoDriver/Model/Background.h"
#include "VerdoDriver/Model/MainThread.h"
#include "VerdoDriverCore/Network/CertificateFile.h"

#include <QPointer>
#include <exception>
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
  runInBackground(
      "verdo.proxy", [proxyFor = proxyFor_, url] { return proxyFor(url); },
      [self = QPointer(this), request = std::move(request),
       completion = std::move(completion)](const std::string& proxy) {
        if (self) self->sendThrough(proxy, request, completion);
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
    later([completion = std::move(completion), text = std::string(error.what())] {
      completion(tl::make_unexpected(TransportError{TransportError::Kind::other, text}));
    });
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
