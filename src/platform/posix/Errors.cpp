#include "platform/posix/Errors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <unistd.h>

namespace platform::posix
{

namespace
{

struct Meaning
{
    int error; // errno
    ErrorNumber number;
};

/// Where several errors have the same number, errorText describes the first of them.
constexpr std::array MEANINGS = {
    Meaning{0, ErrorNumber::Success},
    Meaning{ENOENT, ErrorNumber::FileNotFound},
    Meaning{ENOTDIR, ErrorNumber::PathNotFound},
    Meaning{EMFILE, ErrorNumber::TooManyOpenFiles},
    Meaning{ENFILE, ErrorNumber::TooManyOpenFiles},
    Meaning{EACCES, ErrorNumber::AccessDenied},
    Meaning{EPERM, ErrorNumber::AccessDenied},
    Meaning{EISDIR, ErrorNumber::AccessDenied},
    Meaning{EBADF, ErrorNumber::InvalidHandle},
    Meaning{ENOMEM, ErrorNumber::NotEnoughMemory},
    Meaning{EAGAIN, ErrorNumber::NotEnoughMemory}, // the limit of processes and threads is reached
    Meaning{EXDEV, ErrorNumber::NotSameDevice},
    Meaning{EROFS, ErrorNumber::WriteProtect},
    Meaning{ETXTBSY, ErrorNumber::SharingViolation},
    Meaning{ENOSYS, ErrorNumber::NotSupported},
    Meaning{EOPNOTSUPP, ErrorNumber::NotSupported},
    Meaning{EINVAL, ErrorNumber::InvalidParameter},
    Meaning{ENOSPC, ErrorNumber::DiskFull},
    Meaning{EDQUOT, ErrorNumber::DiskFull},
    Meaning{ENOTEMPTY, ErrorNumber::FolderNotEmpty},
    Meaning{EBUSY, ErrorNumber::Busy},
    Meaning{EEXIST, ErrorNumber::AlreadyExists},
    Meaning{ENOEXEC, ErrorNumber::BadExecutable},
    Meaning{ELOOP, ErrorNumber::CannotResolveName},
    Meaning{E2BIG, ErrorNumber::NameTooLong},
    Meaning{ENAMETOOLONG, ErrorNumber::NameTooLong},
};

} // namespace

ErrorNumber fromErrno(int error)
{
    const auto* const meaning = std::ranges::find(MEANINGS, error, &Meaning::error);
    return meaning == MEANINGS.end() ? ErrorNumber::IoDevice : meaning->number;
}

std::string errorText(ErrorNumber number)
{
    const auto* const meaning = std::ranges::find(MEANINGS, number, &Meaning::number);
    return std::generic_category().message(meaning == MEANINGS.end() ? EIO : meaning->error);
}

ErrorNumber fromErrno(int error, const std::string& path)
{
    const std::size_t separator = path.find_last_of('/');
    const bool isFolderMissing = error == ENOENT && separator != std::string::npos && separator > 0 &&
                                 access(path.substr(0, separator).c_str(), F_OK) != 0;
    return isFolderMissing ? ErrorNumber::PathNotFound : fromErrno(error);
}

} // namespace platform::posix
