#pragma once

#include <ostream>

namespace vantorix::cli {

// Standard output and standard error as streams that keep the reason their first failed write
// failed. SIGPIPE is ignored, so a reader that went away shows as EPIPE here and the command can
// stop its work cleanly instead of dying. Standard output is buffered (std::flush and std::endl
// write it out), standard error is written at once.
std::ostream& standardOutput();
std::ostream& standardError();

// The errno of the first failed write to `stream`, one of the two above; EIO for another stream
// that failed; 0 while no write failed.
int writeFailure(const std::ostream& stream);

}  // namespace vantorix::cli
