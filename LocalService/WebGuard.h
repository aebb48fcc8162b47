#pragma once

#include <httplib.h>

namespace verdo::local {

/// Refuses what a foreign web page makes a browser on this machine ask.
///
/// A page can lead the name of its own host to 127.0.0.1 and is then, to the browser, of one origin
/// with the service; but the name that it used still stands in Host. So Host must be "localhost" or
/// an address: whoever names an address reaches that very address and nothing else (relays in
/// front of the service, with their own address and port, therefore work). Requests that a page of
/// another origin makes carry that origin.
///
/// Throws HttpError: 421 for the host, 403 for the origin.
void refuseForeignPages(const httplib::Request& request);

}  // namespace verdo::local
