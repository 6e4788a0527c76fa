# SPDX-License-Identifier: Apache-2.0
"""The errors of each system call according to section ERRORS of its manual page."""
import errno

from harness.state import SHORT

_PATH = "EACCES EFAULT ELOOP ENAMETOOLONG ENOENT ENOMEM ENOTDIR"
_NAMES = {
    "accept4": "EAGAIN EBADF ECONNABORTED EFAULT EINTR EINVAL EMFILE ENFILE ENOBUFS ENOMEM ENOTSOCK "
               "EOPNOTSUPP EPERM EPROTO",
    "access": f"{_PATH} EINVAL EIO EPERM EROFS ETXTBSY",
    "bind": "EACCES EADDRINUSE EADDRNOTAVAIL EBADF EFAULT EINVAL ENOTSOCK",
    "brk": "ENOMEM",
    "chmod": f"{_PATH} EIO EPERM EROFS",
    "close": "EBADF EDQUOT EINTR EIO ENOSPC",
    "connect": "EACCES EADDRINUSE EADDRNOTAVAIL EAFNOSUPPORT EAGAIN EALREADY EBADF ECONNREFUSED "
               "EFAULT EINPROGRESS EINTR EISCONN ENETUNREACH ENOTSOCK EPERM EPROTOTYPE ETIMEDOUT",
    "epoll_create1": "EINVAL EMFILE ENFILE ENOMEM",
    "epoll_ctl": "EBADF EINVAL ENOMEM ENOSPC EPERM",
    "epoll_wait": "EBADF EFAULT EINTR EINVAL",
    "fchmod": "EBADF EIO EPERM EROFS",
    "fchown": "EBADF EIO ENOENT EPERM EROFS",
    "fcntl": "EACCES EAGAIN EBADF EFAULT EINVAL EMFILE EPERM",
    "fork": "EAGAIN ENOMEM ENOSYS",
    "fsync": "EBADF EDQUOT EINTR EINVAL EIO ENOSPC EROFS",
    "ftruncate": "EBADF EFBIG EINTR EINVAL EIO EPERM EROFS",
    "getcwd": "EACCES EFAULT EINVAL ENOENT ENOMEM ERANGE",
    "getdents64": "EBADF EFAULT EINVAL ENOENT ENOTDIR",
    "getpgid": "ESRCH",
    "getsockopt": "EBADF EFAULT EINVAL ENOPROTOOPT ENOTSOCK",
    "ioctl": "EBADF EFAULT EINVAL ENOTTY",
    "kill": "EINVAL EPERM ESRCH",
    "listen": "EADDRINUSE EBADF ENOTSOCK EOPNOTSUPP",
    "lseek": "EBADF EINVAL ENXIO EOVERFLOW ESPIPE",
    "mkdir": f"{_PATH} EBADF EDQUOT EEXIST EINVAL EMLINK ENOSPC EPERM EROFS",
    "mmap": "EACCES EAGAIN EBADF EEXIST EINVAL ENFILE ENODEV ENOMEM EOVERFLOW EPERM",
    "mprotect": "EACCES EINVAL ENOMEM",
    "mremap": "EAGAIN EFAULT EINVAL ENOMEM",
    "newfstatat": f"{_PATH} EBADF EINVAL EOVERFLOW",
    "nanosleep": "EFAULT EINTR EINVAL",
    "clock_nanosleep": "EFAULT EINTR EINVAL",
    "openat": f"{_PATH} EBADF EBUSY EDQUOT EEXIST EFBIG EINTR EINVAL EISDIR EMFILE ENFILE ENODEV "
              "ENOSPC ENXIO EOPNOTSUPP EOVERFLOW EPERM EROFS ETXTBSY EWOULDBLOCK",
    "openat2": f"{_PATH} E2BIG EAGAIN EBADF EINTR EINVAL EMFILE ENFILE ENOSPC ENOSYS EPERM EROFS EXDEV",
    "pidfd_open": "EINVAL EMFILE ENFILE ENODEV ENOMEM ESRCH",
    "pipe2": "EFAULT EINVAL EMFILE ENFILE",
    "poll": "EFAULT EINTR EINVAL ENOMEM",
    "popen": "EAGAIN EMFILE ENFILE ENOMEM",
    "posix_spawnp": "E2BIG EACCES EAGAIN EIO ELOOP ENOENT ENOEXEC ENOMEM ENOSYS",
    "prlimit64": "EFAULT EINVAL EPERM ESRCH",
    "pread64": "EAGAIN EBADF EFAULT EINTR EINVAL EIO EISDIR ENXIO EOVERFLOW ESPIPE",
    "pselect6": "EBADF EINTR EINVAL ENOMEM",
    "read": "EAGAIN EBADF EFAULT EINTR EINVAL EIO EISDIR",
    # Without EINVAL, which means that the path is not a link.
    "readlink": f"{_PATH} EIO",
    "readlinkat": f"{_PATH} EBADF EIO",
    "reboot": "EFAULT EINVAL ENOMEM EPERM",
    "recvfrom": "EAGAIN EBADF ECONNREFUSED EFAULT EINTR EINVAL ENOMEM ENOTCONN ENOTSOCK",
    "rename": f"{_PATH} EBUSY EDQUOT EEXIST EINVAL EISDIR EMLINK ENOSPC ENOTEMPTY EPERM EROFS EXDEV",
    "sendmsg": "EACCES EAGAIN EALREADY EBADF ECONNRESET EDESTADDRREQ EFAULT EINTR EINVAL EISCONN "
               "EMSGSIZE ENOBUFS ENOMEM ENOTCONN ENOTSOCK EOPNOTSUPP EPIPE",
    "setsockopt": "EBADF EFAULT EINVAL ENOPROTOOPT ENOTSOCK",
    "shutdown": "EBADF EINVAL ENOTCONN ENOTSOCK",
    "signalfd4": "EBADF EINVAL EMFILE ENFILE ENODEV ENOMEM",
    "socket": "EACCES EAFNOSUPPORT EINVAL EMFILE ENFILE ENOBUFS ENOMEM EPROTONOSUPPORT",
    "statfs": f"{_PATH} EINTR EIO ENOSYS EOVERFLOW",
    "system": "EAGAIN ECHILD ENOMEM",
    "symlinkat": f"{_PATH} EBADF EDQUOT EEXIST EIO ENOSPC EPERM EROFS",
    "sync_file_range": "EBADF EINVAL EIO ENOMEM ENOSPC ESPIPE",
    "syncfs": "EBADF EDQUOT EIO ENOSPC",
    "uname": "EFAULT",
    "unlink": f"{_PATH} EBUSY EIO EISDIR EPERM EROFS",
    "utimensat": f"{_PATH} EBADF EINVAL EPERM EROFS",
    "wait4": "ECHILD EINTR EINVAL",
    "waitid": "EBADF ECHILD EINTR EINVAL ESRCH",
    "write": "EAGAIN EBADF EDQUOT EFAULT EFBIG EINTR EINVAL EIO ENOSPC EPERM EPIPE",
}
_NAMES["faccessat"] = _NAMES["faccessat2"] = _NAMES["access"]
_NAMES["renameat"] = _NAMES["rename"] + " EBADF"
_NAMES["unlinkat"] = _NAMES["unlink"] + " EBADF EINVAL ENOTEMPTY"
_NAMES["rmdir"] = f"{_PATH} EBUSY EINVAL ENOTEMPTY EPERM EROFS"
_NAMES["mkdirat"] = _NAMES["mkdir"]
_NAMES["sendto"] = _NAMES["sendmsg"]

# Calls that may complete partially.
_SHORT = ("pread64", "read", "write", "recvfrom", "sendmsg")

ERRORS = {name: tuple(sorted({getattr(errno, one) for one in names.split()})) +
          ((SHORT,) if name in _SHORT else ()) for name, names in _NAMES.items()}

# Calls that cannot fail, or only for invalid arguments, which are constants here.
WITHOUT_ERRORS = frozenset((
    "exit_group", "futex", "getpid", "getrandom", "madvise", "munmap", "rt_sigreturn", "sync",
    "restart_syscall", "rt_sigaction",
    "rt_sigprocmask"))

# Failures that are neither logged nor reported in a reply, each with the reason why that is correct.
SILENT = {
    "brk": "libc allocates with mmap instead",
    "close": "the descriptor is freed even on failure",
    "connect": "each pass retries a refused connect without a log line; libc's log gives up",
    "fchmod": "a file whose permissions cannot be kept is written in place",
    "fchown": "a file whose owner cannot be kept is written in place",
    "fcntl": "a standard stream stays close-on-exec",
    "fsync": "a directory or a device that cannot be synced",
    "getdents64": "a directory that is removed during a walk",
    "getpgid": "the process is signalled directly too",
    "getsockopt": "a clause is written without a wait for room; for a slow peer, see ioctl",
    "ioctl": "the output counts as complete; the bytes that the socket accepts count as progress",
    "kill": "the program has already ended; the following wait detects it",
    "lseek": "libc's streams work without it",
    "mkdir": "the directory already exists",
    "mmap": "libc allocates elsewhere, or reports that memory is exhausted",
    "mprotect": "libc allocates elsewhere",
    "newfstatat": "libc's streams and its time zone work without it",
    "openat": "optional files: the time zone, the resolver's, the LEDs', the reserve",
    "pidfd_open": "the end of a program is polled every 10 ms instead",
    "poll": "the end of a program is polled every 10 ms instead",
    "prlimit64": "libc's number of processors or descriptors",
    "read": "optional files; a pipe counts as at its end",
    "readlinkat": "the path is not a link",
    "renameat": "a file that cannot be replaced is written in place; a missing directory is created",
    "sendto": "the log itself",
    "setsockopt": "the socket works without the option, or libc reports the error",
    "shutdown": "the peer has already disconnected",
    "socket": "the socket of the log or of the resolver",
    "statfs": "libc's queries about a file system",
    "uname": "libc's resolver, and the host name of the prompt",
    "unlink": "the file is optional",
    "unlinkat": "the file is optional",
    "wait4": "the program was already reaped",
    "waitid": "the program was already reaped",
    "write": "the copy of the log on standard error",
    "nanosleep": "the wait is repeated",
    "clock_nanosleep": "the wait is repeated",
    "getcwd": "a call inside libc",
    "faccessat": "the file is optional",
    "faccessat2": "the file is optional",
    "access": "the file is optional",
}

# The errors that may stay silent, for the calls of SILENT where not every error may.
_REFUSED = frozenset((errno.EACCES, errno.ENOENT, errno.EPERM, errno.EROFS))
SILENT_ERRORS = {
    "fchmod": _REFUSED, "fchown": _REFUSED, "fsync": frozenset((errno.EINVAL, errno.EROFS)),
    "getdents64": frozenset((errno.ENOENT, errno.ENOTDIR)), "mkdir": frozenset((errno.EEXIST,)),
    "renameat": frozenset((errno.EBUSY, errno.ENOENT))}


def may_be_silent(name, error):
    """Whether a failure without consequences may stay unreported."""
    if error in (SHORT, errno.EINTR, errno.EAGAIN):
        return True  # the daemon repeats the call
    return name in SILENT and error in SILENT_ERRORS.get(name, (error,))
