#pragma once

#include <memory>
#include <string>

#include "platform/QueuedFile.h"

namespace vantorix {

// Opens an existing file for direct, queued I/O through io_uring (O_RDWR | O_DIRECT). When the
// file system refuses direct I/O, open fails with EINVAL and that error comes back unchanged, so
// callers can tell "no direct I/O here" from other failures. Fails too when io_uring is not
// available (disabled by the administrator or a sandbox).
//
// Jobs on the file:
// - `blockSize` is a nonzero multiple of 4096, `queueDepth` 1 to 256, `span` a nonzero multiple
//   of `blockSize`, and `byteLimit`, when given, a multiple of `blockSize`; otherwise EINVAL.
// - A zero `duration` means no time limit, which needs a `byteLimit` (EINVAL without one).
// - Reads must stay inside the file: a read job whose span reaches past the end fails with EINVAL
//   before any I/O, and a read that meets the end of the file while running (the file shrank)
//   fails the job with ENODATA. Writes past the end extend the file.
// - A failed request fails the job with its error once the requests in flight have completed.
Result<std::unique_ptr<QueuedFile>, FileError> openIoUringQueuedFile(const std::string& path);
// The same for the file `name` in the folder open as `directory`; a symbolic link is refused.
Result<std::unique_ptr<QueuedFile>, FileError> openIoUringQueuedFileAt(int directory, const std::string& name);

}  // namespace vantorix
