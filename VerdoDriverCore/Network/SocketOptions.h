#pragma once

namespace verdo {

/// Has the system notice that the other end of a TCP socket can no longer be reached: after 15 s
/// with data that nobody acknowledges, and after 16 s of silence on an idle connection (three
/// questions, one lost packet being no proof). What the system refuses is left as it is.
void detectDeadPath(int socket);

}  // namespace verdo
