#include "platform/posix/Errors.h"

#include <cerrno>
#include <unistd.h>

namespace platform::posix
{

ErrorNumber fromErrno(int error)
{
    switch (error)
    {
    case 0:
        return ErrorNumber::Success;
    case ENOENT:
        return ErrorNumber::FileNotFound;
    case ENOTDIR:
        return ErrorNumber::PathNotFound;
    case EMFILE:
    case ENFILE:
        return ErrorNumber::TooManyOpenFiles;
    case EACCES:
    case EPERM:
    case EISDIR:
        return ErrorNumber::AccessDenied;
    case EBADF:
        return ErrorNumber::InvalidHandle;
    case ENOMEM:
    case EAGAIN: // no room for another process or thread
        return ErrorNumber::NotEnoughMemory;
    case EXDEV:
        return ErrorNumber::NotSameDevice;
    case EROFS:
        return ErrorNumber::WriteProtect;
    case ETXTBSY:
        return ErrorNumber::SharingViolation;
    case ENOSYS:
    case EOPNOTSUPP:
        return ErrorNumber::NotSupported;
    case EINVAL:
        return ErrorNumber::InvalidParameter;
    case ENOSPC:
    case EDQUOT:
        return ErrorNumber::DiskFull;
    case ENOTEMPTY:
        return ErrorNumber::FolderNotEmpty;
    case EBUSY:
        return ErrorNumber::Busy;
    case EEXIST:
        return ErrorNumber::AlreadyExists;
    case ENOEXEC:
        return ErrorNumber::BadExecutable;
    case ELOOP:
        return ErrorNumber::CannotResolveName;
    case E2BIG:
    case ENAMETOOLONG:
        return ErrorNumber::NameTooLong;
    default:
        return ErrorNumber::IoDevice;
    }
}

ErrorNumber fromErrno(int error, const std::string& path)
{
    const std::size_t separator = path.find_last_of('/');
    const bool isFolderMissing = error == ENOENT && separator != std::string::npos && separator > 0 &&
                                 access(path.substr(0, separator).c_str(), F_OK) != 0;
    return isFolderMissing ? ErrorNumber::PathNotFound : fromErrno(error);
}

} // namespace platform::posix
