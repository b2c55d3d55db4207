#include "text/SystemError.h"

#include <fmt/format.h>

#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include "text/Language.h"

namespace vantorix::text {
namespace {

struct ErrorText {
    int code;
    const char* chinese;
    const char* english;
};

// The causes people meet with files, folders, devices and sockets.
constexpr ErrorText kTexts[] = {
    {ENOSPC, "设备上没有剩余空间", "No space left on device"},
    {EDQUOT, "超出磁盘配额", "Disk quota exceeded"},
    {EROFS, "文件系统为只读", "Read-only file system"},
    {ENOENT, "没有这个文件或文件夹", "No such file or folder"},
    {ENOTDIR, "路径中有一部分不是文件夹", "A part of the path is not a folder"},
    {EISDIR, "这是一个文件夹", "It is a folder"},
    {ELOOP, "符号链接层数过多（可能是循环链接）", "Too many levels of symbolic links (a link loop?)"},
    {ENAMETOOLONG, "文件名或路径过长", "File name or path too long"},
    {EACCES, "权限不足", "Permission denied"},
    {EPERM, "不允许此操作", "Operation not permitted"},
    {EIO, "输入/输出错误", "Input/output error"},
    {EFBIG, "文件过大", "File too large"},
    {ENODEV, "没有这个设备", "No such device"},
    {ENXIO, "没有这个设备或地址", "No such device or address"},
    {EBUSY, "设备或资源忙", "Device or resource busy"},
    {EMFILE, "打开的文件过多", "Too many open files"},
    {ENFILE, "系统中打开的文件过多", "Too many open files in the system"},
    {ENOMEM, "内存不足", "Out of memory"},
    {EEXIST, "文件已存在", "File exists"},
    {EINVAL, "参数无效", "Invalid argument"},
    {ETIMEDOUT, "操作超时", "Timed out"},
    {ECONNREFUSED, "连接被拒绝", "Connection refused"},
    {ECONNRESET, "连接被对方重置", "Connection reset by peer"},
    {EPIPE, "管道已断开", "Broken pipe"},
    {EAGAIN, "资源暂时不可用", "Resource temporarily unavailable"},
    {EINTR, "操作被中断", "Interrupted"},
    {ESTALE, "文件句柄已失效（卷可能已被卸载）", "Stale file handle (was the volume unmounted?)"},
};

}  // namespace

std::string systemErrorText(int code) {
    for (const auto& entry : kTexts) {
        if (entry.code == code) return localized(entry.chinese, entry.english);
    }
    return isEnglish() ? fmt::format("{} (error {})", std::generic_category().message(code), code)
                       : fmt::format("系统错误 {}（{}）", code, std::generic_category().message(code));
}

std::string notRegularFileText(unsigned mode) {
    switch (mode & S_IFMT) {
        case S_IFIFO:
            return localized("它是命名管道（FIFO），不是普通文件", "It is a named pipe (FIFO), not a regular file");
        case S_IFCHR: return localized("它是字符设备，不是普通文件", "It is a character device, not a regular file");
        case S_IFBLK: return localized("它是块设备，不是普通文件", "It is a block device, not a regular file");
        case S_IFSOCK: return localized("它是套接字，不是普通文件", "It is a socket, not a regular file");
        case S_IFDIR: return localized("它是文件夹，不是普通文件", "It is a folder, not a regular file");
        default: return localized("它不是普通文件", "It is not a regular file");
    }
}

std::string withCause(const std::string& message, const std::string& cause) {
    if (cause.empty()) return message;
    if (isEnglish()) return message.empty() ? cause + "." : message + " " + cause + ".";
    return message + cause + "。";
}

std::string withSystemError(const std::string& message, int code) { return withCause(message, systemErrorText(code)); }

}  // namespace vantorix::text
