#include "failures/Sample.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace verdo::failures {
namespace {

struct Calls {
  const char* row;
  std::vector<std::uint64_t> at;
};

std::vector<Attempt> chosen(const std::vector<Row>& rows, const std::vector<Calls>& all) {
  std::vector<Attempt> attempts;
  for (const auto& [title, numbers] : all) {
    const auto isIt = [&](const Row& row) { return row.title() == title; };
    const auto row = std::find_if(rows.begin(), rows.end(), isIt);
    if (row == rows.end()) throw std::logic_error(std::string("no row ") + title);
    for (const auto number : numbers) attempts.push_back({*row, number});
  }
  return attempts;
}

}  // namespace

std::vector<Attempt> driverSample() {
  return chosen(driverRows(), {
                                  {"pipe EMFILE", {2, 11, 13, 15}},
                                  {"pipe EMFILE …", {10}},
                                  {"posix_spawn EAGAIN", {1, 3, 5}},
                                  {"pthread_create EAGAIN", {1, 3, 5, 10, 12, 13, 15, 16}},
                                  {"pthread_create EAGAIN …", {14}},
                                  {"epoll_ctl ENOMEM", {1, 4, 8, 20, 32}},
                                  {"epoll_wait EINTR", {3, 20}},
                                  {"open EMFILE", {1, 2, 3, 4}},
                                  {"open EACCES …", {3}},
                                  {"create ENOSPC", {1, 3, 4}},
                                  {"write ENOSPC", {2}},
                                  {"write(pipe) ENOMEM", {2, 6, 7, 8}},
                                  {"write(log) ENOSPC …", {1}},
                                  {"close EIO", {2}},
                                  {"mkdir ENOSPC", {1, 3}},
                                  {"ftruncate EIO", {1}},
                                  {"flock ENOLCK", {2}},
                                  {"malloc ENOMEM", {40, 400, 740, 751, 760, 3750, 4500}},
                                  {"getaddrinfo EAI_AGAIN", {1, 2}},
                                  {"socket EMFILE", {4, 6}},
                                  {"connect ENETUNREACH", {2}},
                                  {"send/recv ECONNRESET", {3, 12}},
                                  {"waitid EINTR", {4}},
                                  {"realtime an hour back", {300}},
                                  {"monotonic an hour on", {300, 500}},
                              });
}

std::vector<Attempt> appSample() {
  return chosen(appRows(), {
                               {"pipe EMFILE", {1}},
                               {"pthread_create EAGAIN", {4, 5, 6, 8, 10}},
                               {"create ENOSPC", {1, 2}},
                               {"write ENOSPC", {1, 3, 5}},
                               {"write EIO …", {3}},
                               {"rename EACCES …", {2}},
                               {"socket EMFILE", {2}},
                           });
}

}  // namespace verdo::failures
