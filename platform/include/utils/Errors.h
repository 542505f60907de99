/// Status codes of the platform: 0, the named codes, or a negated errno.
#pragma once

#include <cerrno>
#include <cstdint>

namespace android {

using status_t = int32_t;

enum {
    OK = 0,
    UNKNOWN_ERROR = INT32_MIN,
    BAD_TYPE = INT32_MIN + 1,
    FAILED_TRANSACTION = INT32_MIN + 2,
    FDS_NOT_ALLOWED = INT32_MIN + 7,
    UNEXPECTED_NULL = INT32_MIN + 8,
    NO_MEMORY = -ENOMEM,
    BAD_VALUE = -EINVAL,
    NOT_ENOUGH_DATA = -ENODATA,
    NAME_NOT_FOUND = -ENOENT,
    PERMISSION_DENIED = -EPERM,
    ALREADY_EXISTS = -EEXIST,
    DEAD_OBJECT = -EPIPE,
    UNKNOWN_TRANSACTION = -EBADMSG,
    INVALID_OPERATION = -ENOSYS,
};

}  // namespace android
