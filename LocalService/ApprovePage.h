#pragma once

#include <string>
#include <string_view>

namespace verdo::local {

// The pages on which a person decides about a pairing: whole HTML documents in UTF-8 that need no
// script and load nothing. Texts are escaped here.

struct ApproveRequest {
  std::string_view host;  ///< empty: the computer gave no name
  std::string_view userCode;
  std::string_view username;
  std::string_view nonce;
};

/// The request with the buttons Approve and Deny. They post `nonce` and `decision`, which is
/// "approve" or "deny", as a form to the page's own address.
std::string requestPage(const ApproveRequest& request);

enum class Notice {
  approved,
  denied,
  alreadyApproved,
  alreadyDenied,
  expired,
  undecided,  ///< the form was not one that we made
  unknown,    ///< no request is at this address
};

/// What became of a request. `host` is not used for `undecided` and `unknown`.
std::string noticePage(Notice notice, std::string_view host = {});

/// Value of the Content-Security-Policy header that all these pages need.
const std::string& approvePagePolicy();

}  // namespace verdo::local
