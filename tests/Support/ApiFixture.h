#pragma once

#include "VerdoDriverCore/Network/Api.h"
#include "VerdoDriverCore/Network/LineBatch.h"
#include "tests/Support/DriverFixture.h"

namespace verdo::test {

/// An Api of its own against the fixture's service, without a run.
class ApiFixture : public DriverFixture {
 protected:
  using DriverFixture::DriverFixture;
  ApiFixture() { make(); }
  void TearDown() override {
    api.reset();
    session.reset();
    DriverFixture::TearDown();
  }

  Api::Options options() const {
    Api::Options given;
    given.base = service.url();
    given.token = service.token();
    given.timings.throttlePause = std::chrono::milliseconds(50);
    return given;
  }
  void make() { make(options()); }
  void make(Api::Options given, HttpSession::Options sessionOptions = {}) {
    session = std::make_shared<HttpSession>(std::move(sessionOptions));
    api = std::make_unique<Api>(std::move(given), session);
  }

  /// What the call ends with: the message of a ServerError, "{type}: {message}" of another error,
  /// "" when it ends well.
  static std::string failureOf(const std::function<void()>& call) try {
    call();
    return "";
  } catch (const ServerError& error) {
    return error.what();
  } catch (const PyError& error) {
    return pyDescribe(error);
  }
  HttpRequest helloRequest() const {
    HttpRequest request;
    request.url = service.url() + "/api/driver/hello";
    request.headers = {{"Authorization", "Bearer " + service.token()},
                       {"X-VERDO-Driver-Protocol", "2"}};
    return request;
  }
  static std::shared_ptr<const ByteBuffer> batch(const std::vector<std::string>& lines) {
    LineBatch made;
    for (const auto& line : lines) made.add(line);
    return std::make_shared<const ByteBuffer>(std::move(made).finish());
  }

  std::shared_ptr<HttpSession> session;
  std::unique_ptr<Api> api;
};

}  // namespace verdo::test
