#pragma once

#include <string>

namespace vantorix::text {

// What a system error number means, as a short sentence fragment in the interface language
// ("No space left on device" / "设备上没有剩余空间"). Numbers without a text of their own give the C
// library's text with the number.
std::string systemErrorText(int code);

// Why a path that is not a regular file is not read or written as one, from its st_mode: "It is a
// named pipe (FIFO), not a regular file" / "它是命名管道（FIFO），不是普通文件".
std::string notRegularFileText(unsigned mode);

// `message` followed by its cause: "Write phase failed. No space left on device." /
// "写入阶段失败。设备上没有剩余空间。". The message keeps its wording; the cause is added after it.
std::string withCause(const std::string& message, const std::string& cause);
std::string withSystemError(const std::string& message, int code);

}  // namespace vantorix::text
